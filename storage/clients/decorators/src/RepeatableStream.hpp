#pragma once

#include "PassThroughBuffer.hpp"

#include <ios>
#include <istream>
#include <optional>
#include <ostream>
#include <type_traits>

namespace storage::clients
{

/// The content stream of one call that may have to be made several times. For one thread.
///
/// @tparam Stream  std::istream or std::ostream
template <typename Stream>
class RepeatableStream
{
    static constexpr auto direction = std::is_same_v<Stream, std::istream> ? std::ios_base::in : std::ios_base::out;

public:
    /// @param stream  borrowed for as long as this lives; tries begin where it stands now
    explicit RepeatableStream(Stream& stream)
        : m_stream(stream)
        , m_state(stream.rdstate())
        , m_start(tell())
        , m_watched(stream.rdbuf())
        , m_watchedStream(&m_watched)
    {
        m_watchedStream.exceptions(stream.exceptions());
    }

    /// What each try is to use.
    Stream& get() noexcept { return m_start ? m_stream : m_watchedStream; }

    /// Make ready for a further try. @return false: that is impossible
    bool rewind()
    {
        if (!m_start)
        {
            m_watchedStream.clear();
            return m_watched.bytes() == 0;
        }
        if (const auto reached = tell(); reached && (!m_furthest || *m_furthest < *reached))
        {
            m_furthest = reached;
        }
        m_stream.clear(m_state);
        try
        {
            m_stream.rdbuf()->pubseekpos(*m_start, direction);
        }
        catch (const std::ios_base::failure&) // one of the ways to say no; the position tells them all
        {
            return false;
        }
        // Asked rather than believed: buffers that count in an int claim success and stand elsewhere after 2 GiB.
        return tell() == m_start;
    }

    /// Whether the last try ended before a place that an earlier one wrote to.
    bool hasSurplus() const { return m_furthest && tell() < m_furthest; }

private:
    // Buffers are asked themselves, since a stream marks itself bad when its buffer cannot tell.
    std::optional<std::streamoff> tell() const
    {
        try
        {
            const std::streamoff position = m_stream.rdbuf()->pubseekoff(0, std::ios_base::cur, direction);
            return position >= 0 ? std::optional(position) : std::nullopt;
        }
        catch (const std::ios_base::failure&) // one of the ways to say that there are no positions
        {
            return std::nullopt;
        }
    }

    Stream& m_stream;
    const std::ios_base::iostate m_state;
    const std::optional<std::streamoff> m_start; // empty: the stream has no positions, and tries get the watched one
    std::optional<std::streamoff> m_furthest;    // where failed tries ended at most
    PassThroughBuffer m_watched;
    Stream m_watchedStream;
};

} // namespace storage::clients
