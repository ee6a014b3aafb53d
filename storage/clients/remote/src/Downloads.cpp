#include "Downloads.hpp"

#include "FirstFailure.hpp"
#include "Retry.hpp"

#include <storage/clients/common/KeyRules.hpp>
#include <storage/clients/remote/RemoteFailures.hpp>
#include <storage/cloudprovider/CloudExceptions.hpp>

#include <algorithm>
#include <atomic>
#include <string_view>
#include <vector>

namespace storage::clients
{

namespace
{

/// Nothing else is requested until the first range is there. So it is small, but most files fit into it.
constexpr std::uint64_t maxOpeningSize = 1U << 20;

/// Large, so that the round trip of a request takes little of its time; small enough that the last ranges end together.
constexpr std::uint64_t maxRangeSize = 8U << 20;

/// Ends a request after another one has failed. No std::exception, so that nobody handles it.
struct Stopped
{
};

} // namespace

Downloads::Downloads(ObjectReader& reader, TaskPool& pool, std::uint64_t partSize)
    : m_reader(reader)
    , m_pool(pool)
    , m_openingSize(std::min(4 * partSize, maxOpeningSize))
    , m_rangeSize(std::min(32 * partSize, maxRangeSize))
{
}

std::uint64_t Downloads::fetch(const std::string& key, const ObjectDownloader::Sink& sink)
{
    Version object;
    std::atomic<std::uint64_t> next; // offset of the next range
    {
        std::string content;
        object = m_reader.open(key, m_openingSize, content);
        sink(0, content);
        next = content.size();
    }
    Outage outage;
    FirstFailure failure(outage);
    const auto fetchRange = [&](std::uint64_t offset)
    {
        const auto write = [&](std::uint64_t position, std::string_view bytes)
        {
            if (failure.isThere())
            {
                throw Stopped();
            }
            sink(offset + position, bytes);
        };
        m_reader.readVersion({Operation::GetObjectRange, key, &outage}, write,
            {offset, std::min(m_rangeSize, object.size - offset)}, object);
    };
    const auto fetchRanges = [&]
    {
        try
        {
            for (auto offset = next.fetch_add(m_rangeSize); offset < object.size && !failure.isThere();
                 offset = next.fetch_add(m_rangeSize))
            {
                fetchRange(offset);
            }
        }
        catch (...)
        {
            failure.keep();
        }
    };
    const std::uint64_t ranges = (object.size - next + m_rangeSize - 1) / m_rangeSize;
    const std::uint64_t threads = std::max<std::uint64_t>(m_pool.maxThreads(), 1);
    m_pool.run(std::vector<TaskPool::Task>(std::min(ranges, threads), fetchRanges));
    try
    {
        failure.throwIfThere();
    }
    catch (const PreconditionFailed&)
    {
        throw cloudprovider::UnknownErrorException("Object changed",
            "reading " + quoted(key) + ": somebody has changed or removed the object since it was opened");
    }
    return object.size;
}

} // namespace storage::clients
