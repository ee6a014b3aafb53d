#pragma once

#include "InternalExport.hpp"
#include "OpenPartManager.hpp"

#include <foundation/storage/provider/ByteStream.hpp>
#include <foundation/storage/provider/ByteStreamOpenOptions.hpp>

#include <cstdint>
#include <memory>

namespace storage::cloudprovider
{

/// Reads and writes one open file, part by part.
///
/// Several streams may be open on one file, each with a position of its own; they share the file's part manager. The
/// part that a stream works in stays open across calls until the stream leaves it, so small reads and writes cost one
/// copy. One thread at a time may use a stream.
class CLOUDPROVIDER_INTERNAL OpenFileByteStream : public foundation::storage::provider::ByteStream
{
public:
    using stream_offset = foundation::storage::provider::stream_offset;

    /// Register with the part manager.
    /// @param position  Append: every write goes to the end of the file; anything else: to the stream's position
    OpenFileByteStream(
        std::shared_ptr<OpenPartManager> partManager, foundation::storage::provider::ByteStreamWritePosition position);

    /// Close the stream. A failure is logged.
    ~OpenFileByteStream() override;

protected:
    /// Read up to `n` bytes. Returns the number read, less than `n` only where the file ends, and -1 at its end.
    std::streamsize doRead(char* s, std::streamsize n) override;

    /// Write `n` bytes, repeating uploads that failed earlier first. Returns `n`, or -1 once a read has found the end
    /// of the file and no seek has followed.
    std::streamsize doWrite(const char* s, std::streamsize n) override;

    /// Move. A place before the start is the start; a place beyond the end is allowed.
    std::streampos doSeek(const stream_offset off, const std::ios_base::seekdir way) override;

    /// Give the part back and unregister; the last stream writes the file to the store. Runs to its end whatever fails,
    /// then throws the first failure. Closing twice does nothing.
    void doClose() override;

private:
    void dropInvalidPart();
    void closeCurrentPart();
    void openPartAtOffset(bool createIfNonExistent);
    bool appends() const;
    std::size_t readFromPart(char* s, std::size_t remaining);
    std::size_t writeIntoPart(const char* s, std::size_t remaining);

    std::uint64_t m_fileOffset = 0;
    bool m_atEnd = false; // no part was found at the offset; only a seek clears it
    const foundation::storage::provider::ByteStreamWritePosition m_writeAtOffset;
    std::unique_ptr<OpenPartDevice> m_device;       // the part in use, or empty
    std::shared_ptr<OpenPartManager> m_partManager; // empty once closed
};

} // namespace storage::cloudprovider
