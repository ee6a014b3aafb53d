#pragma once

#include <cstdint>
#include <filesystem>

namespace storage::clients
{

/// Where openStore() lets a distant store keep on disk what is read of it; see RangeCache. The clients ignore this.
struct CacheSettings
{
    std::filesystem::path folder = {};   ///< empty: nothing is kept
    std::uint64_t maxSize = 1ULL << 30U; ///< bytes; at least some files of RangeCache, which have 4 MiB each
};

} // namespace storage::clients
