#pragma once

#include <chrono>
#include <cstdint>

namespace storage::clients
{

/// How long one request may take. A request that exceeds one of these limits has failed and may be retried.
struct HttpTimeouts
{
    /// Name resolution, connecting and the TLS handshake together.
    std::chrono::milliseconds connect{10'000};

    /// A request fails when it moves fewer than `stallBytesPerSecond` bytes per second, on average, for this long. The
    /// time until the store starts to respond counts. Bytes that are sent have moved when the store's machine has
    /// received them.
    std::chrono::milliseconds stallWindow{30'000};
    long stallBytesPerSecond = 64;

    /// The same for copies and completions, during which the store moves bytes internally and sends none. A copy gets
    /// extra time: its size times the maximum number of concurrent copies, divided by `serverSideBytesPerSecond`, which
    /// must not be 0.
    std::chrono::milliseconds serverSideStallWindow{300'000};
    std::uint64_t serverSideBytesPerSecond = 16 << 20;

    /// One request in total, even if its bytes move steadily. A copy may take its stall window instead if that is
    /// longer. A body that is sent gets extra time: its size divided by `sendBytesPerSecond`, which must not be 0.
    std::chrono::seconds request{3'600};
    std::uint64_t sendBytesPerSecond = 256 << 10;

    /// One request in total that cleans up: each that begins after an interrupt, and the abort of an upload of this
    /// client, which often follows the failure of a silent store. Also the rest of a request that opens an upload when
    /// it is interrupted. The user waits for the end of the process. An abort that takes longer in the store can be
    /// retried: an upload that is gone counts as aborted.
    std::chrono::milliseconds cleanUp{5'000};
};

} // namespace storage::clients
