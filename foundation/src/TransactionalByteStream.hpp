#pragma once

#include <foundation/storage/provider/IProvider.hpp>

#include <fl/filesystem.hpp>

#include <boost/iostreams/device/file_descriptor.hpp>

namespace foundation::storage::provider
{

/// Collect the new contents of a file in a local temporary file, and write them to the target when closed.
class TransactionalByteStream : public ByteStream
{
public:
    /// @param provider  serves `target`; must outlive the stream
    /// @param scratchFolder  existing; empty: the system's temporary folder
    TransactionalByteStream(const IProvider& provider, StorageIRI target, const fl::filesystem::path& scratchFolder);

    /// Drop the contents if the stream was not closed.
    ~TransactionalByteStream() override;

protected:
    std::streamsize doRead(char* s, std::streamsize n) override;
    std::streamsize doWrite(const char* s, std::streamsize n) override;
    std::streampos doSeek(const stream_offset off, const std::ios_base::seekdir way) override;
    void doClose() override;
    void doAbandon() override;

private:
    const IProvider& m_provider;
    const StorageIRI m_target;

    // Open until the stream is closed. Its name is removed at once, so that no file remains however the process ends.
    boost::iostreams::file_descriptor m_scratch;
};

} // namespace foundation::storage::provider
