#include "RestFetcher.hpp"

#include <storage/clients/common/KeyRules.hpp>
#include <storage/cloudprovider/Logger.hpp>

#include <foundation/log/Severity.hpp>

#include <boost/exception/diagnostic_information.hpp>
#include <fmt/format.h>

#include <algorithm>
#include <iterator>
#include <system_error>
#include <utility>

namespace storage::clients
{

namespace
{

constexpr std::size_t maxReadings = 64;
constexpr std::size_t maxThreads = 4;
constexpr unsigned minMisses = 16;             // before anything is fetched that nobody has asked for
constexpr std::uint64_t trialSize = 4U << 20U; // bytes; the transfer takes longer than a round trip
constexpr std::uint64_t pieceSize = 2 * trialSize;
constexpr std::chrono::seconds maxIdleTime{1}; // a reader that comes back later continues the rest

void logFailure(const ObjectVersion& object) noexcept
try
{
    if (auto& logger = cloudprovider::getLogger(); logger.isEnabled(foundation::log::severity::progress))
    {
        logger.write(foundation::log::severity::progress,
            fmt::format("fetching the rest of {} failed; it is requested again as it is read: {}", quoted(object.key),
                boost::current_exception_diagnostic_information(false)));
    }
}
catch (...) // There is no memory for the text.
{
}

} // namespace

RestFetcher::RestFetcher(RangeCache& cache, Fetch fetch)
    : m_cache(cache)
    , m_fetch(std::move(fetch))
{
}

RestFetcher::~RestFetcher()
{
    {
        const std::lock_guard lock(m_mutex);
        m_isEnding = true;
        m_changed.notify_all();
    }
    for (std::thread& thread : m_threads)
    {
        thread.join();
    }
}

void RestFetcher::read(const ObjectVersion& object, const ByteRange& fetched, Duration waited)
{
    const std::lock_guard lock(m_mutex);
    Reading& reading = readingOf(object);
    reading.lastRead = std::chrono::steady_clock::now();
    reading.missing -= std::min(reading.missing, fetched.size);
    const bool isNext = std::exchange(reading.lastEnd, fetched.offset + fetched.size) == fetched.offset;
    // A sequential reader waits for a whole round trip only if there was no memory to prefetch the range.
    if (fetched.size == 0 || (isNext && waited < reading.shortestWait / 2))
    {
        return;
    }
    ++reading.misses;
    reading.waited += waited;
    reading.shortestWait = std::min(reading.shortestWait, waited);
    if (!reading.isWanted && reading.running == 0 && isWorthIt(reading))
    {
        startThreads();
        reading.isWanted = !m_threads.empty();
        m_changed.notify_all();
    }
}

bool RestFetcher::isWorthIt(const Reading& reading) const
{
    const bool canBeKept = !m_cache.isReadOnly() && trialSize % m_cache.blockSize() == 0; // pieces are whole blocks
    if (reading.misses < minMisses || reading.object.size > m_cache.maxSize() / 2 || !canBeKept)
    {
        return false;
    }
    const bool isTrial = reading.bytesPerSecond == 0;
    return isTrial ||
           std::chrono::duration<double>(reading.waited).count() * reading.bytesPerSecond >= double(reading.missing);
}

/// Find or add the readers of a version, as those that have read last.
RestFetcher::Reading& RestFetcher::readingOf(const ObjectVersion& object)
{
    const auto known = std::ranges::find_if(m_readings, [&](const Reading& each) { return each.object == object; });
    if (known != m_readings.end())
    {
        m_readings.splice(m_readings.begin(), m_readings, known);
        return m_readings.front();
    }
    m_readings.emplace_front(object);
    while (m_readings.size() > maxReadings && forgetOldest())
    {
    }
    return m_readings.front();
}

/// Evict the readers that have read longest ago, of those for whom nothing is being fetched.
/// @return whether there were any
bool RestFetcher::forgetOldest()
{
    for (auto each = std::prev(m_readings.end()); each != m_readings.begin(); --each)
    {
        if (!each->isWanted && each->running == 0)
        {
            m_readings.erase(each);
            return true;
        }
    }
    return false;
}

void RestFetcher::startThreads()
try
{
    while (m_threads.size() < maxThreads)
    {
        m_threads.emplace_back([this] { work(); });
    }
}
catch (const std::exception&) // fewer will do; without one, nothing is fetched ahead
{
}

void RestFetcher::work()
{
    std::unique_lock lock(m_mutex);
    while (!m_isEnding)
    {
        const auto wanted = std::ranges::find_if(m_readings, &Reading::isWanted);
        wanted == m_readings.end() ? m_changed.wait(lock) : fetchPiece(*wanted, lock);
    }
}

/// Fetch the next piece, unless it is there. Releases the lock during the request.
void RestFetcher::fetchPiece(Reading& reading, std::unique_lock<std::mutex>& lock)
{
    const bool isTrial = reading.bytesPerSecond == 0;
    const std::uint64_t size = isTrial ? trialSize : pieceSize;
    const std::uint64_t offset = (reading.left - 1) / size * size;
    const ByteRange piece{offset, std::exchange(reading.left, offset) - offset};
    const bool isHere = isInCache(reading.object, piece);
    reading.isWanted = reading.left > 0 && (isHere || !isTrial);
    if (!isHere)
    {
        reading.begin = reading.running == 0 && reading.fetched == 0 ? std::chrono::steady_clock::now() : reading.begin;
        ++reading.running;
        lock.unlock();
        const bool isFetched = fetch(reading.object, piece);
        lock.lock();
        --reading.running;
        reading.fetched += isFetched ? piece.size : 0;
        reading.left = isFetched ? reading.left : 0;
    }
    const bool isRead = std::chrono::steady_clock::now() - reading.lastRead < maxIdleTime;
    reading.isWanted = reading.isWanted && reading.left > 0 && isRead;
    if (!reading.isWanted && reading.running == 0)
    {
        end(reading, isTrial);
    }
}

/// Measure what was fetched. If all of it is there, or if it was in vain, forget all but the throughput.
void RestFetcher::end(Reading& reading, bool isTrial)
{
    if (reading.fetched >= trialSize / 4)
    {
        // In a trial nothing else is on the way, so it waits for the response as the readers do.
        const Duration response = isTrial ? reading.shortestWait : Duration();
        const Duration time = std::chrono::steady_clock::now() - reading.begin;
        reading.bytesPerSecond =
            double(reading.fetched) / std::chrono::duration<double>(std::max(time - response, time / 8)).count();
    }
    else if (isTrial)
    {
        reading.bytesPerSecond = 1; // too few to make it worth trying again
    }
    reading.missing -= std::min(reading.missing, std::exchange(reading.fetched, 0));
    if (reading.left == 0)
    {
        const double bytesPerSecond = reading.bytesPerSecond;
        reading = Reading(std::move(reading.object)); // must not allocate: no handler on this thread
        reading.bytesPerSecond = bytesPerSecond;
    }
}

bool RestFetcher::isInCache(const ObjectVersion& object, const ByteRange& piece) const noexcept
try
{
    return m_cache.missing(object, piece).size == 0;
}
catch (...) // no memory to look
{
    return false;
}

/// @return false: do not go on
bool RestFetcher::fetch(const ObjectVersion& object, const ByteRange& piece) noexcept
try
{
    return m_fetch(object, piece, m_isEnding) && isInCache(object, piece);
}
catch (...)
{
    logFailure(object);
    return false;
}

} // namespace storage::clients
