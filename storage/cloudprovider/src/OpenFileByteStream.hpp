#pragma once

#include "OpenPartManager.hpp"

#include <foundation/storage/provider/ByteStream.hpp>
#include <foundation/storage/provider/ByteStreamOpenOptions.hpp>

#include <cstdint>
#include <memory>

namespace storage::cloudprovider
{

/// Reads and writes one open file, part by part.
///
/// Several streams may be open on one file. Each has its own position; all share the file's part manager. The current
/// part of a stream stays open across calls until the stream leaves it, so a small read or write costs one memcpy. One
/// thread at a time may use a stream.
class OpenFileByteStream : public foundation::storage::provider::ByteStream
{
public:
    using stream_offset = foundation::storage::provider::stream_offset;

    /// Register with the part manager.
    /// @param position  Append: every write goes to the end of the file; any other value: to the stream's position
    /// @param mayWrite  false: the owner never writes to the stream and never abandons it
    OpenFileByteStream(std::shared_ptr<OpenPartManager> partManager,
        foundation::storage::provider::ByteStreamWritePosition position, bool mayWrite = true);

    /// Close the stream. A failure is logged.
    ~OpenFileByteStream() override;

protected:
    /// Read up to `n` bytes.
    /// @return the number of bytes read, less than `n` only if the file ends there; -1 at the end of the file
    std::streamsize doRead(char* s, std::streamsize n) override;

    /// Retry uploads that failed earlier, then write `n` bytes.
    /// @return `n`; or -1, having written nothing, if a read has reached the end of the file and no seek has followed
    std::streamsize doWrite(const char* s, std::streamsize n) override;

    /// Set the position. A position before the start becomes 0. A position beyond the end is allowed; one beyond 2^63-1
    /// fails, and the stream stays where it was.
    /// @return the new position
    std::streampos doSeek(const stream_offset off, const std::ios_base::seekdir way) override;

    /// Close the current part and unregister from the part manager. The last stream writes the file to the store.
    ///
    /// A failed step does not skip the later ones; the first failure is thrown at the end. A second close does nothing.
    void doClose() override;

    /// Drop the file's changes, if no other stream shared them. See OpenPartManager::abandonChanges().
    void doAbandon() override;

private:
    void dropInvalidPart();
    void closeCurrentPart();
    void openPartAtOffset(bool createIfNonExistent);
    bool isAppending() const;
    std::size_t readFromPart(char* s, std::size_t remaining);
    std::size_t writeIntoPart(const char* s, std::size_t remaining);

    std::uint64_t m_fileOffset = 0;
    bool m_atEnd = false; // there was no part at the offset; only a seek clears this
    const foundation::storage::provider::ByteStreamWritePosition m_writeAtOffset;
    std::unique_ptr<OpenPartDevice> m_device;       // the current part; may be null
    std::shared_ptr<OpenPartManager> m_partManager; // null after close
};

} // namespace storage::cloudprovider
