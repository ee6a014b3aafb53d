#include "DownloadedPartCache.hpp"

#include <algorithm>
#include <set>
#include <utility>

namespace storage::cloudprovider
{

/// The caches of all open files. Its mutex may be held when those of a cache and of a part are taken.
struct DownloadedPartCache::Registry
{
    /// Never destroyed, because streams in static objects may be.
    static Registry& instance()
    {
        static Registry& registry = *new Registry();
        return registry;
    }

    Mutex mutex;
    std::set<DownloadedPartCache*> caches GUARDED_BY(mutex);
};

DownloadedPartCache::DownloadedPartCache(std::uint64_t limit)
    : m_limit(limit)
{
    Registry& registry = Registry::instance();
    const MutexLock lock(registry.mutex);
    registry.caches.insert(this);
}

DownloadedPartCache::~DownloadedPartCache()
{
    Registry& registry = Registry::instance();
    const MutexLock lock(registry.mutex);
    registry.caches.erase(this);
}

void DownloadedPartCache::discardAll()
{
    std::vector<OpenPartBufferSharedPtr> parts; // may be the last owners, which must not be destroyed under the lock
    Registry& registry = Registry::instance();
    // Held until the bytes are free, so that the next thread without room waits for them.
    const MutexLock lock(registry.mutex);
    for (DownloadedPartCache* const cache : registry.caches)
    {
        const MutexLock cacheLock(cache->m_mutex);
        for (CacheEntry& entry : cache->m_entries)
        {
            parts.push_back(std::move(entry.part));
        }
        cache->m_entries.clear();
        cache->m_total = 0;
    }
    for (const OpenPartBufferSharedPtr& part : parts)
    {
        part->discardIfUnmodified();
    }
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
