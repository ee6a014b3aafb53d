#pragma once

#include <foundation/storage/provider/ByteStream.hpp>
#include <foundation/storage/provider/ByteStreamFailure.hpp>
#include <foundation/storage/provider/IProvider.hpp>

#include <cstddef>
#include <ios>
#include <vector>

namespace foundation::storage::provider
{

inline constexpr std::streamsize copyChunk = 64L * 1024; // bytes; larger chunks copy no faster from the page cache

/// Open a file to replace its contents.
///
/// @throws Exception with ErrorCode::InUse if the file is not empty then, because it is open elsewhere: its contents
///         are shared, and what remains of them would be mixed with the new ones
inline ByteStreamPtr openToReplace(
    const IProvider& provider, const StorageIRI& iri, ByteStreamCreate create, ByteStreamWritePosition position)
{
    ByteStreamPtr stream =
        provider.openStream(iri, {ByteStreamReadAccess::None, create, ByteStreamTruncate::Discard, position});
    if (stream->seek(0, std::ios_base::end) != std::streampos(0))
    {
        throw Exception(ErrorCode(ErrorCode::InUse, "the file is open elsewhere and not empty"), iri);
    }
    return stream;
}

/// Write all `n` bytes.
///
/// @throws ByteStreamWriteFailure if the stream accepts no more bytes, and everything that the stream throws
inline void writeAll(ByteStream& destination, const char* s, std::streamsize n)
{
    while (n > 0)
    {
        const std::streamsize count = destination.write(s, n);
        if (count <= 0)
        {
            throw ByteStreamWriteFailure(ErrorCode(ErrorCode::Unknown, "the stream accepts no more bytes"));
        }
        s += count;
        n -= count;
    }
}

/// Copy from the current position of `source` to its end. Closes neither.
///
/// @param source  anything whose read() returns -1 at the end
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
            throw ByteStreamReadFailure(
                ErrorCode(ErrorCode::Unknown, "the stream returned neither bytes nor the end of the file"));
        }
        writeAll(destination, chunk.data(), count);
    }
}

} // namespace foundation::storage::provider
