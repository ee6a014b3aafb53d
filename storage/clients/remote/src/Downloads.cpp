#include "Downloads.hpp"

#include "FirstFailure.hpp"
#include "InOrder.hpp"
#include "Retry.hpp"

#include <storage/clients/common/KeyRules.hpp>
#include <storage/clients/remote/RemoteFailures.hpp>
#include <storage/cloudprovider/CloudExceptions.hpp>

#include <algorithm>
#include <cstddef>
#include <string_view>

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

Downloads::Downloads(ObjectReader& reader, TaskPool& pool, const RemoteSettings& settings)
    : m_reader(reader)
    , m_pool(pool)
    , m_openingSize(std::min(4 * settings.partSize, maxOpeningSize))
    , m_rangeSize(std::min(32 * settings.partSize, maxRangeSize))
    , m_orderedSize(std::clamp(settings.memory / 2 / settings.transfers, m_openingSize / 4, m_rangeSize))
{
}

void Downloads::fetch(const std::string& key, const ObjectDownloader::Sink& sink)
{
    std::string content;
    const Version object = m_reader.open(key, m_openingSize, content);
    sink.begin(object.size);
    sink.write(0, content);
    Outage outage;
    FirstFailure failure(outage);
    const std::uint64_t rest = object.size - content.size();
    const std::uint64_t rangeSize = sink.isOrdered ? m_orderedSize : m_rangeSize;
    InOrder order(rangeSize);
    const auto receive = [&](const ByteRange& range, const ObjectReader::Write& take)
    {
        const auto write = [&](std::uint64_t position, std::string_view bytes)
        { failure.isThere() ? throw Stopped() : take(position, bytes); };
        m_reader.readVersion({Operation::GetObjectRange, key, &outage}, write, range, object);
    };
    const auto fetchRange = [&](std::size_t index)
    {
        const std::uint64_t begin = index * rangeSize; // in the rest
        const ByteRange range{content.size() + begin, std::min(rangeSize, rest - begin)};
        if (!sink.isOrdered)
        {
            receive(range,
                [&](std::uint64_t position, std::string_view bytes) { sink.write(range.offset + position, bytes); });
            return;
        }
        InOrder::Buffer early = order.takeBuffer();
        receive(range,
            [&](std::uint64_t position, std::string_view bytes) { bytes.copy(early.get() + position, bytes.size()); });
        order.deliver(index, early, [&](const char* bytes) { sink.write(range.offset, {bytes, range.size}); });
    };
    const auto tryRange = [&](std::size_t index)
    {
        try
        {
            failure.isThere() ? void() : fetchRange(index);
        }
        catch (...)
        {
            failure.keep();
            order.end();
        }
    };
    m_pool.run((rest + rangeSize - 1) / rangeSize, tryRange);
    try
    {
        failure.throwIfThere();
    }
    catch (const PreconditionFailed&)
    {
        throw cloudprovider::UnknownErrorException("Object changed",
            "reading " + quoted(key) + ": somebody has changed or removed the object since it was opened");
    }
}

} // namespace storage::clients
