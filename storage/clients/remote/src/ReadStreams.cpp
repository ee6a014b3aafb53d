#include "ReadStreams.hpp"

#include <algorithm>

namespace storage::clients
{

ReadStreams::Ahead ReadStreams::advance(
    const ByteRange& read, std::uint64_t now, std::uint64_t maxWindow, std::uint64_t maxPiece)
{
    const auto multiple = [&read](std::uint64_t bytes)
    { return std::max(bytes / read.size, std::uint64_t{1}) * read.size; };
    const auto stream = match(read, multiple(maxWindow));
    stream->position = read.offset + read.size;
    stream->lastRead = now;
    // Readers in step share one window: a reader that reaches another's position has read the same range.
    for (const Stream& other : m_streams)
    {
        if (other.position == stream->position)
        {
            stream->window = std::max(stream->window, other.window);
            stream->rangesToOpen = std::min(stream->rangesToOpen, other.rangesToOpen);
        }
    }
    std::rotate(m_streams.begin(), stream, stream + 1);
    const Stream& front = m_streams.front();
    // Half a window: while the reader waits for one half, the other is in flight.
    return {front.position, front.window, multiple(std::min(maxPiece, front.window / 2))};
}

/// Find or start the stream that the range belongs to, and update its window. Its position is still the old one.
ReadStreams::Streams::iterator ReadStreams::match(const ByteRange& read, std::uint64_t maxWindow)
{
    const auto next = std::find_if(
        m_streams.begin(), m_streams.end(), [&](const Stream& stream) { return stream.position == read.offset; });
    if (next != m_streams.end())
    {
        next->rangesToOpen = std::max(next->rangesToOpen, 1U) - 1;
        const bool isOpen = next->window != 0;
        next->window = isOpen ? std::min(next->window * 2, maxWindow) : next->rangesToOpen == 0 ? read.size : 0;
        return next;
    }
    const Stream newStream{.rangesToOpen = read.offset == 0 ? 1U : 2U};
    const auto jump = std::find_if(m_streams.begin(), m_streams.end(),
        [&](const Stream& stream)
        { return stream.position < read.offset && read.offset - stream.position < stream.window; });
    if (jump != m_streams.end())
    {
        *jump = newStream;
        return jump;
    }
    if (m_streams.size() == maxStreams)
    {
        m_streams.pop_back();
    }
    return m_streams.insert(m_streams.end(), newStream);
}

bool ReadStreams::overlapsWindow(const ByteRange& range) const
{
    return std::any_of(m_streams.begin(), m_streams.end(),
        [&](const Stream& stream)
        {
            return stream.window != 0 && range.offset < stream.position + stream.window &&
                   stream.position < range.offset + range.size;
        });
}

std::size_t ReadStreams::openWindows() const
{
    return static_cast<std::size_t>(
        std::count_if(m_streams.begin(), m_streams.end(), [](const Stream& stream) { return stream.window != 0; }));
}

void ReadStreams::closeIdle(std::uint64_t since)
{
    for (Stream& stream : m_streams)
    {
        stream.window = stream.lastRead < since ? 0 : stream.window;
    }
}

void ReadStreams::closeAll()
{
    for (Stream& stream : m_streams)
    {
        stream.window = 0;
        stream.rangesToOpen = 1;
    }
}

} // namespace storage::clients
