#pragma once

#include <foundation/storage/provider/ByteStream.hpp>
#include <foundation/storage/provider/ByteStreamFailure.hpp>

#include <cstddef>
#include <ios>
#include <vector>

namespace foundation::storage::provider
{

inline constexpr std::streamsize copyChunk = 64L * 1024; // bytes; larger ones copy no faster from the page cache

/// Write all `n` bytes.
///
/// @throws ByteStreamWriteFailure if the stream takes no more, and whatever the stream throws
inline void writeAll(ByteStream& destination, const char* s, std::streamsize n)
{
    while (n > 0)
    {
        const std::streamsize count = destination.write(s, n);
        if (count <= 0)
        {
            throw ByteStreamWriteFailure(ErrorCode(ErrorCode::Unknown, "the stream takes no more bytes"));
        }
        s += count;
        n -= count;
    }
}

/// Copy from where `source` stands to its end. Closes neither.
///
/// @param source  anything whose read() gives -1 at the end
template <class Source>
void copyBytes(Source& source, ByteStream& destination)
{
    std::vector<char> chunk(static_cast<std::size_t>(copyChunk));
    for (;;)
    {
        const std::streamsize count = source.read(chunk.data(), copyChunk);
        if (count < 0)
        {
            return;
        }
        if (count == 0)
        {
            throw ByteStreamReadFailure(ErrorCode(ErrorCode::Unknown, "the stream gives neither bytes nor its end"));
        }
        writeAll(destination, chunk.data(), count);
    }
}

} // namespace foundation::storage::provider
