#pragma once

#include "LogRecords.hpp"
#include "Mutex.hpp"
#include "OpenPartBuffer.hpp"
#include "TemporaryFileException.hpp"

#include <cstdint>
#include <deque>
#include <vector>

namespace storage::cloudprovider
{

/// Records which closed parts of one file stay loaded, and decides which to evict.
///
/// addPart() frees no bytes itself: the caller discards the evicted parts. Any thread may call any operation.
class DownloadedPartCache
{
public:
    /// @param limit  maximum number of bytes to keep; 0 keeps nothing
    explicit DownloadedPartCache(std::uint64_t limit);
    DownloadedPartCache(const DownloadedPartCache&) = delete;
    DownloadedPartCache& operator=(const DownloadedPartCache&) = delete;
    ~DownloadedPartCache();

    /// Empty the caches of all open files of the process, and free the bytes of their parts. Call when there is no room
    /// for temporary files, holding no lock but the stream lock.
    static void discardAll();

    /// Run an action that needs room for temporary files. If there is none, call discardAll() and run it again. The
    /// action must be repeatable after such a failure, and the caller's locks are limited as for discardAll().
    template <typename Action>
    static auto withRoom(const Action& action)
    {
        try
        {
            return action();
        }
        catch (const TemporaryFileException& exception)
        {
            if (!exception.needsRoom())
            {
                throw;
            }
            logCaughtException();
        }
        discardAll();
        return action();
    }

    /// Add a part as the newest entry.
    /// @return the evicted parts, oldest first; the added part is among them if it alone exceeds the limit
    std::vector<OpenPartBufferSharedPtr> addPart(OpenPartBufferSharedPtr part, std::size_t bytes);

    /// Remove a part that is in use again.
    /// @return whether it was in the cache
    bool removePart(const OpenPartBufferSharedPtr& part);

private:
    struct Registry;

    struct CacheEntry
    {
        OpenPartBufferSharedPtr part;
        std::size_t bytes;
    };

    // Taken under the file's stream lock, or under that of the registry. No lock is taken while it is held.
    Mutex m_mutex;
    std::deque<CacheEntry> m_entries GUARDED_BY(m_mutex); // oldest first
    std::uint64_t m_total GUARDED_BY(m_mutex) = 0;        // bytes of all entries
    const std::uint64_t m_limit;
};

} // namespace storage::cloudprovider
