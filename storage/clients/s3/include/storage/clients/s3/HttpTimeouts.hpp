#pragma once

#include <chrono>
#include <cstdint>

namespace storage::clients::s3
{

/// How long one request may take. A request that runs into one of these has failed and may be repeated.
struct HttpTimeouts
{
    /// Name resolution, connecting and the TLS handshake together.
    std::chrono::milliseconds connect{10'000};

    /// A request is given up when fewer than `stallBytesPerSecond` bytes moved, on average, for so long; time in which
    /// the store thinks before it answers counts.
    std::chrono::seconds stallWindow{30};
    long stallBytesPerSecond = 64;

    /// The same for copies and completions, where the store is silent while it moves bytes of its own. A copy gets the
    /// time on top that its bytes, and as many for each of the copies beside it, take at `serverSideBytesPerSecond`,
    /// which is not 0.
    std::chrono::seconds serverSideStallWindow{300};
    std::uint64_t serverSideBytesPerSecond = 16 << 20;

    /// The whole of one request, however steadily its bytes come; a copy may take its window where that is longer.
    std::chrono::seconds request{3'600};
};

} // namespace storage::clients::s3
