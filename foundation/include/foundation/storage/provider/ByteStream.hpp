#pragma once

#include <foundation/Export.hpp>
#include <foundation/storage/provider/ByteStreamFailure.hpp>
#include <foundation/storage/provider/fsp.hpp>

#include <boost/iostreams/positioning.hpp>

#include <ios>
#include <memory>

namespace foundation::storage::provider
{

/// A signed 64-bit count of bytes.
using boost::iostreams::stream_offset;

/// Read and write the bytes of one open file.
///
/// One thread at a time may use a stream. Hosts call the public operations; a provider implements the virtual ones.
/// Closing is where writing may fail, so close a stream that was written to and look at the result: the destructor
/// closes too, but can only log what goes wrong.
///
/// Failures are ByteStreamReadFailure, ByteStreamWriteFailure, ByteStreamSeekFailure and ByteStreamCloseFailure, or an
/// Exception that a provider's own layers threw.
class FOUNDATION_EXPORT ByteStream
{
public:
    virtual ~ByteStream();

    ByteStream(const ByteStream&) = delete;
    ByteStream& operator=(const ByteStream&) = delete;

    /// Read up to `n` bytes into `s`.
    ///
    /// @return the number of bytes read, which may be less than `n`; -1 at the end of the file, which is no failure
    /// @throws ByteStreamReadFailure
    std::streamsize read(char* s, std::streamsize n);

    /// Write `n` bytes from `s`.
    ///
    /// @return the number of bytes written; -1 if the stream takes none here
    /// @throws ByteStreamWriteFailure; bytes before the failing one may have been written
    std::streamsize write(const char* s, std::streamsize n);

    /// Move to `off` bytes from the start, the present position or the end of the file.
    ///
    /// A place beyond the end is allowed. A place before the start is the start, or a failure: the provider says which.
    /// @return the new position in bytes from the start
    /// @throws ByteStreamSeekFailure
    std::streampos seek(stream_offset off, std::ios_base::seekdir way);

    /// Finish the stream: afterwards everything written is in the file. Closing twice does nothing.
    ///
    /// @throws ByteStreamCloseFailure; the stream is closed all the same
    void close();

protected:
    ByteStream() = default;

    virtual std::streamsize doRead(char* s, std::streamsize n) = 0;
    virtual std::streamsize doWrite(const char* s, std::streamsize n) = 0;
    virtual std::streampos doSeek(const stream_offset off, const std::ios_base::seekdir way) = 0;
    virtual void doClose() = 0;
};

/// Owns a stream.
using ByteStreamPtr = std::unique_ptr<ByteStream>;

} // namespace foundation::storage::provider
