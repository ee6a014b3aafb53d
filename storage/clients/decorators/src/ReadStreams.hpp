#pragma once

#include <storage/clients/common/Content.hpp>

#include <cstddef>
#include <cstdint>
#include <vector>

namespace storage::clients
{

/// Guesses from the ranges read of one object which of its readers go on, and how far ahead it pays to fetch for each.
///
/// A stream is the place where a reader stopped. A range that begins there goes on with it. Of a stream that began
/// where the object does, the second range in a row opens a window of that size behind it, which every further one
/// doubles. Of one that began elsewhere only the third does: a single look across two parts is two ranges, and with
/// several streams about, random ranges follow one of them by chance. Whoever leaves the place loses the window: at
/// once by a jump into it, else after as many other beginnings as there are streams.
///
/// Calculates only: no threads, no locks, no bytes.
class ReadStreams
{
public:
    static constexpr std::size_t mostStreams = 8; ///< readers of one object that are told apart

    /// What is worth fetching.
    struct Ahead
    {
        std::uint64_t offset = 0; ///< where the range that was read ends
        std::uint64_t size = 0;   ///< bytes from there; 0: nothing
        std::uint64_t piece = 0;  ///< bytes to ask for at once: a multiple of the range read, smaller in small windows

        bool operator==(const Ahead&) const = default;
    };

    /// Take note of a range that is read, of at least one byte.
    ///
    /// @param now         number of this read, greater than that of the one before
    /// @param mostAhead   bytes that a window is not to exceed, unless a single range does
    /// @param wholePiece  bytes that a piece is not to exceed, unless a single range does
    Ahead advance(const ByteRange& read, std::uint64_t now, std::uint64_t mostAhead, std::uint64_t wholePiece);

    /// Whether a window reaches into the range.
    bool wants(const ByteRange& range) const;

    /// Streams with a window.
    std::size_t active() const;

    /// Close the windows of streams that none of the reads from number `since` on belongs to.
    void closeIdle(std::uint64_t since);

    /// Close all windows. Readers that go on open new ones.
    void closeAll();

private:
    struct Stream
    {
        std::uint64_t position = 0; // where the next range would begin
        std::uint64_t window = 0;   // bytes from there; 0: closed
        unsigned toGo = 0;          // ranges that must follow before a window opens
        std::uint64_t lastRead = 0; // its number
    };
    using Streams = std::vector<Stream>;

    Streams::iterator match(const ByteRange& read, std::uint64_t mostAhead);

    Streams m_streams; // the one used last in front
};

} // namespace storage::clients
