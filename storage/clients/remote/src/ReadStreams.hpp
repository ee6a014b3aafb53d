#pragma once

#include <storage/clients/common/Content.hpp>

#include <cstddef>
#include <cstdint>
#include <vector>

namespace storage::clients
{

/// Detect sequential readers of one object from the ranges that are read, and decide how far to prefetch for each.
///
/// A stream is the position where a reader stopped. A range that starts there continues the stream. If the stream
/// started at offset 0, its second range in a row opens a window of that range's size beyond its end, and each further
/// range doubles the window. If it started elsewhere, only its third range opens the window: a single access that spans
/// two parts is two ranges, and with several streams, a random range continues one of them by chance. A reader that
/// seeks elsewhere loses its window: at once if it jumps to a position inside the window, otherwise after as many new
/// streams have started as are tracked.
///
/// Only calculates: no threads, no locks, no bytes.
class ReadStreams
{
public:
    static constexpr std::size_t maxStreams = 8; ///< maximum readers of one object that are tracked

    /// What to prefetch.
    struct Ahead
    {
        std::uint64_t offset = 0; ///< where the range that was read ends
        std::uint64_t size = 0;   ///< bytes from there; 0: nothing
        std::uint64_t piece = 0;  ///< bytes to request at once: a multiple of the range read, smaller for small windows

        bool operator==(const Ahead&) const = default;
    };

    /// Record that a range of at least one byte is read.
    ///
    /// @param now        number of this read, greater than that of the previous one
    /// @param maxWindow  maximum bytes of a window, unless a single range is larger
    /// @param maxPiece   maximum bytes of a piece, unless a single range is larger
    Ahead advance(const ByteRange& read, std::uint64_t now, std::uint64_t maxWindow, std::uint64_t maxPiece);

    /// Whether any window overlaps the range.
    bool overlapsWindow(const ByteRange& range) const;

    /// Count the streams with an open window.
    std::size_t openWindows() const;

    /// Close the windows of streams whose last read has a number below `since`.
    void closeIdle(std::uint64_t since);

    /// Close all windows. The next range that continues a stream opens a new one.
    void closeAll();

private:
    struct Stream
    {
        std::uint64_t position = 0; // where the next range of the stream starts
        std::uint64_t window = 0;   // bytes from there; 0: closed
        unsigned rangesToOpen = 0;  // consecutive ranges that open the window
        std::uint64_t lastRead = 0; // number of the last read
    };
    using Streams = std::vector<Stream>;

    Streams::iterator match(const ByteRange& read, std::uint64_t maxWindow);

    Streams m_streams; // most recently used first
};

} // namespace storage::clients
