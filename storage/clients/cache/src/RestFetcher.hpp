#pragma once

#include <storage/clients/cache/RangeCache.hpp>

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <functional>
#include <list>
#include <mutex>
#include <thread>
#include <utility>
#include <vector>

namespace storage::clients
{

/// Fetches the rest of an object into a RangeCache when waiting for single ranges of it has cost as much as that would.
///
/// A random reader gives no hint of what it reads next, or whether it reads on at all. A sequential reader is served by
/// prefetching, but waits like a random one if there is no memory for that. Readers that have waited as long as the
/// rest takes are assumed to continue: then they wait at most twice as long as with the better of both choices. The
/// time that the rest takes follows from the bytes that were not requested yet, and from the throughput of the store.
/// That is measured for each object, by a trial of 4 MiB after 16 ranges that readers have waited for, and by each part
/// of the rest that was fetched. So the first reads of an object never cause a request.
///
/// The rest is read in pieces of 8 MiB by 4 threads, the last piece first: a client that reads ahead would fetch pieces
/// in ascending order twice. Pieces that are in the cache as a whole are left out. It stops when nobody has read the
/// object for a second, and goes on when somebody has to wait again. When its version is not read any more, when the
/// cache does not keep it, and after a failure, which is logged, readers must have waited as long again before it
/// begins anew. An object of more than half of the cache is not begun. 64 objects are known, and those that were read
/// longest ago are forgotten.
///
/// Safe for concurrent calls.
class RestFetcher
{
public:
    using Duration = std::chrono::steady_clock::duration;

    /// Gets a range of a version and writes it to the cache. Called on a thread of this, without a lock. May throw.
    /// @param isCancelled  becomes true when the fetch must fail
    /// @return false: this version is not read any more
    using Fetch =
        std::function<bool(const ObjectVersion& object, const ByteRange& range, const std::atomic<bool>& isCancelled)>;

    /// @param cache  borrowed
    RestFetcher(RangeCache& cache, Fetch fetch);
    RestFetcher(const RestFetcher&) = delete;
    RestFetcher& operator=(const RestFetcher&) = delete;

    /// Ends the threads. Cancels their requests when the next bytes arrive, but waits for responses and retries.
    ~RestFetcher();

    /// A range was read.
    /// @param fetched  what was missing in the cache; size 0: nothing
    /// @param waited   until it was there
    void read(const ObjectVersion& object, const ByteRange& fetched, Duration waited);

private:
    using Time = std::chrono::steady_clock::time_point;

    /// What is known of the readers of one version.
    struct Reading
    {
        explicit Reading(ObjectVersion version)
            : object(std::move(version))
            , missing(object.size)
        {
        }

        ObjectVersion object;
        std::uint64_t missing;               ///< bytes that nobody has requested
        std::uint64_t lastEnd = object.size; ///< of the range that was fetched last for a reader
        unsigned misses = 0; ///< ranges that did not begin there, or that a reader waited for nevertheless
        Duration waited{};   ///< for these
        Duration shortestWait = Duration::max();
        double bytesPerSecond = 0; ///< throughput of the store; 0: not measured
        Time lastRead{};
        std::uint64_t left = object.size; ///< bytes before the pieces that were begun
        bool isWanted = false;            ///< more pieces are to be begun
        unsigned running = 0;             ///< pieces that are being fetched
        Time begin{};                     ///< of the first piece since the last measurement
        std::uint64_t fetched = 0;        ///< bytes since then
    };

    // These require m_mutex.
    Reading& readingOf(const ObjectVersion& object);
    bool isWorthIt(const Reading& reading) const;
    bool forgetOldest();
    void startThreads();
    void fetchPiece(Reading& reading, std::unique_lock<std::mutex>& lock);
    void end(Reading& reading, bool isTrial);

    void work();
    bool fetch(const ObjectVersion& object, const ByteRange& piece) noexcept;
    bool isInCache(const ObjectVersion& object, const ByteRange& piece) const noexcept;

    RangeCache& m_cache;
    const Fetch m_fetch;

    std::mutex m_mutex; // the lock of m_cache may be taken while this one is held; guards everything below
    std::condition_variable m_changed;
    std::list<Reading> m_readings;        // the one that was read last is the first
    std::atomic<bool> m_isEnding = false; // set while the mutex is held
    std::vector<std::thread> m_threads;   // started when the first rest is wanted
};

} // namespace storage::clients
