#pragma once

#include <foundation/Export.hpp>
#include <foundation/storage/provider/ByteStream.hpp>

#include <boost/iostreams/categories.hpp>

#include <ios>
#include <memory>

namespace foundation::storage::provider
{

/// Use a ByteStream where Boost.IOStreams wants a seekable, closable device: in boost::iostreams::copy, in a
/// boost::iostreams::stream, under a filter.
///
/// Copies share the stream; closing one closes it for all. The stream lives as long as the last copy, unless the caller
/// keeps a share of it. One thread at a time may use the copies of one device.
class FOUNDATION_EXPORT GenericByteStreamDevice
{
public:
    using char_type = char;
    struct category : boost::iostreams::seekable_device_tag, boost::iostreams::closable_tag
    {
    };

    /// @param stream  not null
    explicit GenericByteStreamDevice(std::shared_ptr<ByteStream> stream);
    explicit GenericByteStreamDevice(ByteStreamPtr stream);

    /// Read up to `n` bytes; -1 at the end of the file.
    std::streamsize read(char* s, std::streamsize n);

    /// Write all `n` bytes and return `n`. A stream that takes no more fails instead, since a stream copy would go on
    /// as if the rest had been written.
    ///
    /// @throws ByteStreamWriteFailure with ErrorCode::Unknown in that case, and whatever the stream throws
    std::streamsize write(const char* s, std::streamsize n);

    std::streampos seek(stream_offset off, std::ios_base::seekdir way);
    void close();

private:
    std::shared_ptr<ByteStream> m_stream; // never null
};

} // namespace foundation::storage::provider
