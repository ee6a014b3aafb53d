#pragma once

#include "PassThroughBuffer.hpp"

#include <ios>
#include <istream>
#include <optional>
#include <ostream>
#include <type_traits>

namespace storage::clients
{

/// The content stream of one call that may be retried. For one thread.
///
/// @tparam Stream  std::istream or std::ostream
template <typename Stream>
class RewindableStream
{
    static constexpr auto direction = std::is_same_v<Stream, std::istream> ? std::ios_base::in : std::ios_base::out;

public:
    /// @param stream  borrowed for as long as this lives; every attempt begins at its current position
    explicit RewindableStream(Stream& stream)
        : m_stream(stream)
        , m_state(stream.rdstate())
        , m_start(tell())
        , m_passThrough(stream.rdbuf())
        , m_passThroughStream(&m_passThrough)
    {
        m_passThroughStream.exceptions(stream.exceptions());
    }

    /// The stream that each attempt must use.
    Stream& get() noexcept { return m_start ? m_stream : m_passThroughStream; }

    /// Prepare a retry. @return false if that is impossible
    bool rewind()
    {
        if (!m_start)
        {
            m_passThroughStream.clear();
            return m_passThrough.bytes() == 0;
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
        catch (const std::ios_base::failure&) // the stream cannot be rewound
        {
            return false;
        }
        // Check the position, because beyond 2 GiB some buffers report success although their position, an int, has
        // overflowed.
        return tell() == m_start;
    }

    /// Whether the last attempt ended before a position that an earlier one wrote to.
    bool hasSurplus() const { return m_furthest && tell() < m_furthest; }

private:
    // Call the buffer directly, since a stream sets badbit if its buffer is not seekable.
    std::optional<std::streamoff> tell() const
    {
        try
        {
            const std::streamoff position = m_stream.rdbuf()->pubseekoff(0, std::ios_base::cur, direction);
            return position >= 0 ? std::optional(position) : std::nullopt;
        }
        catch (const std::ios_base::failure&) // some buffers report in this way that they are not seekable
        {
            return std::nullopt;
        }
    }

    Stream& m_stream;
    const std::ios_base::iostate m_state;
    const std::optional<std::streamoff> m_start; // empty: not seekable, so attempts use m_passThroughStream
    std::optional<std::streamoff> m_furthest;    // the furthest position that a failed attempt reached
    PassThroughBuffer m_passThrough;
    Stream m_passThroughStream;
};

} // namespace storage::clients
