#include "DownloadedPartCache.hpp"

#include <algorithm>

namespace storage::cloudprovider
{

DownloadedPartCache::DownloadedPartCache(std::uint64_t limit)
    : m_limit(limit)
{
}

std::vector<OpenPartBufferSharedPtr> DownloadedPartCache::addPart(OpenPartBufferSharedPtr part, std::size_t bytes)
{
    const MutexLock lock(m_mutex);
    m_entries.push_back({std::move(part), bytes});
    m_total += bytes;
    std::vector<OpenPartBufferSharedPtr> evicted;
    while (m_total > m_limit)
    {
        m_total -= m_entries.front().bytes;
        evicted.push_back(std::move(m_entries.front().part));
        m_entries.pop_front();
    }
    return evicted;
}

bool DownloadedPartCache::removePart(const OpenPartBufferSharedPtr& part)
{
    const MutexLock lock(m_mutex);
    const auto found =
        std::find_if(m_entries.begin(), m_entries.end(), [&](const CacheEntry& entry) { return entry.part == part; });
    if (found == m_entries.end())
    {
        return false;
    }
    m_total -= found->bytes;
    m_entries.erase(found);
    return true;
}

} // namespace storage::cloudprovider
