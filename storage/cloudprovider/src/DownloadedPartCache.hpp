#pragma once

#include "InternalExport.hpp"
#include "OpenPartBuffer.hpp"

#include <cstdint>
#include <deque>
#include <mutex>
#include <vector>

namespace storage::cloudprovider
{

/// Remembers which closed parts of one file are kept loaded, and names those that are too many.
///
/// It frees nothing itself. Any thread may call any operation.
class CLOUDPROVIDER_INTERNAL DownloadedPartCache
{
public:
    /// @param limit  bytes to keep; 0 keeps nothing
    explicit DownloadedPartCache(std::uint64_t limit);

    /// Keep a part, as the newest one.
    /// @return the parts that no longer fit, oldest first; the part just added may be among them
    std::vector<OpenPartBufferSharedPtr> addPart(OpenPartBufferSharedPtr part, std::size_t bytes);

    /// Forget a part, because it is in use again.
    /// @return whether it was kept
    bool removePart(const OpenPartBufferSharedPtr& part);

private:
    struct CacheEntry
    {
        OpenPartBufferSharedPtr part;
        std::size_t bytes;
    };

    std::deque<CacheEntry> m_entries; // guarded by m_mutex; oldest first
    std::uint64_t m_total = 0;        // guarded by m_mutex; bytes of all entries
    const std::uint64_t m_limit;
    std::mutex m_mutex; // taken alone
};

} // namespace storage::cloudprovider
