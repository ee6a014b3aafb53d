#pragma once

#include <foundation/Export.hpp>
#include <foundation/storage/provider/ByteStreamFailure.hpp>
#include <foundation/storage/provider/fsp.hpp>

#include <boost/iostreams/positioning.hpp>

#include <ios>
#include <memory>

namespace foundation::storage::provider
{

/// A signed 64-bit offset in bytes.
using boost::iostreams::stream_offset;

/// Read and write the bytes of one open file.
///
/// Only one thread at a time may use a stream. Hosts call the public operations; a provider implements the virtual
/// ones. Data may be stored only when the stream is closed, so close a stream after writing and handle the failure. The
/// destructor of a stream that was not closed cannot report a failure: it stores the data and logs failures, or drops
/// the data, as the operation that opened the stream says.
///
/// Each operation throws the failure that is named after it, for example ByteStreamReadFailure, or an Exception from a
/// lower layer of the provider.
class FOUNDATION_EXPORT ByteStream
{
public:
    virtual ~ByteStream();

    ByteStream(const ByteStream&) = delete;
    ByteStream& operator=(const ByteStream&) = delete;

    /// Read up to `n` bytes into `s`.
    ///
    /// @return the number of bytes read, which may be less than `n`; -1 at the end of the file, which is not an error
    /// @throws ByteStreamReadFailure
    std::streamsize read(char* s, std::streamsize n);

    /// Write `n` bytes from `s`.
    ///
    /// @return the number of bytes written, which may be less than `n`; -1 if the stream accepts none
    /// @throws ByteStreamWriteFailure; bytes before the failing one may have been written
    std::streamsize write(const char* s, std::streamsize n);

    /// Move to `off` bytes from the start, the current position or the end of the file.
    ///
    /// A position beyond the end is allowed. A position before the start is either treated as the start or a failure:
    /// the provider says which.
    /// @return the new position in bytes from the start
    /// @throws ByteStreamSeekFailure
    std::streampos seek(stream_offset off, std::ios_base::seekdir way);

    /// Close the stream. After success, everything that was written is in the file. Closing again does nothing.
    ///
    /// @throws ByteStreamCloseFailure; the stream is closed nevertheless
    void close();

    /// Drop what was written instead of storing it: close() and the destructor then leave the file as it was before the
    /// stream was opened.
    ///
    /// Does nothing if the stream cannot drop it, for example because other streams share the contents: the provider
    /// says when. Do not use the stream afterwards, except to close it.
    void abandon();

protected:
    ByteStream() = default;

    virtual std::streamsize doRead(char* s, std::streamsize n) = 0;
    virtual std::streamsize doWrite(const char* s, std::streamsize n) = 0;
    virtual std::streampos doSeek(const stream_offset off, const std::ios_base::seekdir way) = 0;
    virtual void doClose() = 0;
    virtual void doAbandon(); // does nothing
};

/// Owns a stream.
using ByteStreamPtr = std::unique_ptr<ByteStream>;

/// Write to a stream, close it, and throw unless everything is stored. After a failure the stream is abandoned.
///
/// If other streams share the contents, the last of them to close stores them, after this call.
///
/// @param write  called without arguments; writes to `stream`
/// @throws everything that `write` and the stream throw
template <class Write>
void storeOrAbandon(ByteStream& stream, const Write& write)
{
    try
    {
        write();
        // A stream may send parts while it is written, and retry failed ones with the next write. Leave the part that
        // was written last, which may be any, so that it is sent, and let an empty write report what failed: close()
        // alone may not.
        stream.seek(0, std::ios_base::end);
        stream.seek(0, std::ios_base::beg);
        stream.write("", 0);
        stream.close();
    }
    catch (...)
    {
        stream.abandon();
        throw;
    }
}

} // namespace foundation::storage::provider
