#include "ReadAhead.hpp"

#include <storage/clients/common/KeyRules.hpp>
#include <storage/cloudprovider/CloudExceptions.hpp>
#include <storage/cloudprovider/Logger.hpp>

#include <foundation/log/Severity.hpp>

#include <boost/exception/diagnostic_information.hpp>
#include <fmt/format.h>

#include <algorithm>
#include <iterator>
#include <ostream>
#include <utility>

namespace storage::clients
{

using namespace storage::cloudprovider;

namespace
{

constexpr std::size_t maxObjects = 256; // more files than are read at a time, and few enough to visit all of them

// A window that is not read stays open for this many reads of each other reader, so that slow readers keep theirs.
constexpr std::uint64_t idleTurns = 64;
constexpr std::uint64_t idleTurnsUnderPressure = 4; // if another reader needs the memory

constexpr std::uint64_t minEfficientRequest = 4 << 20; // bytes; the transfer takes longer than a round trip

/// Bytes that MemoryBudget grants to prefetches.
std::uint64_t prefetchMemory(const RemoteSettings& settings)
{
    return settings.memory / 2;
}

/// The reason of the exception that is being handled.
std::string reason()
{
    try
    {
        throw;
    }
    catch (const CloudException& failure)
    {
        return failure.detail().value_or(failure.what());
    }
    catch (...)
    {
        return boost::current_exception_diagnostic_information(false);
    }
}

/// Log the current exception: as progress and not as an error, since the reader can still request the range.
void logFailedPrefetch(const std::string& key, const ByteRange& range) noexcept
try
{
    if (auto& logger = getLogger(); logger.isEnabled(foundation::log::severity::progress))
    {
        logger.write(foundation::log::severity::progress,
            fmt::format(
                "prefetching {} bytes at offset {} of {} failed; they will be requested again when they are read: {}",
                range.size, range.offset, quoted(key), reason()));
    }
}
catch (...) // There is no memory for the text.
{
}

} // namespace

ReadAhead::ReadAhead(
    ObjectReader& reader, VersionPins& pins, TaskPool& pool, MemoryBudget& budget, const RemoteSettings& settings)
    : m_reader(reader)
    , m_pins(pins)
    , m_pool(pool)
    , m_budget(budget)
    , m_maxWindow(prefetchMemory(settings) / 4 * 3) // leaves room for the first windows of another reader
    , m_maxPiece(std::min(minEfficientRequest, prefetchMemory(settings) / settings.transfers))
{
}

void ReadAhead::drop()
{
    const std::lock_guard lock(m_mutex);
    for (const ObjectPtr& object : m_objects)
    {
        object->drop();
    }
}

void ReadAhead::forget(const std::string& key)
{
    const std::lock_guard lock(m_mutex);
    if (const auto object = find(key); object != m_objects.end())
    {
        forget(object);
    }
}

bool ReadAhead::read(const std::string& key, std::ostream& out, const ByteRange& range)
{
    const auto blocks = obtain(key, range);
    for (const FetchedBlockPtr& block : blocks)
    {
        const std::uint64_t begin = std::max(range.offset, block->range.offset);
        const std::uint64_t end = std::min(range.offset + range.size, block->range.offset + block->range.size);
        writeContent(key, out, block->bytes.data() + (begin - block->range.offset), end - begin);
    }
    return !blocks.empty();
}

/// @return blocks that have the range, all Ready; empty: the range must be requested
FetchedBlocks ReadAhead::obtain(const std::string& key, const ByteRange& range)
{
    const auto version = m_pool.maxThreads() > 0 ? m_pins.pinned(key) : std::nullopt;
    if (!version || range.offset >= version->size || range.size > version->size - range.offset)
    {
        return {};
    }
    std::unique_lock lock(m_mutex);
    const ObjectPtr object = objectAt(key, *version);
    const auto ahead = object->streams().advance(range, ++m_reads, m_maxWindow, m_maxPiece);
    if (m_reads % idleTurns == 0) // not always, since this visits all objects
    {
        closeIdleWindows(idleTurns);
    }
    FetchedBlocks added;
    if (object->firstMissing(range.offset) != range.offset)
    {
        add(*object, range.offset, ahead.offset, range.size, added); // the rest: its start is in memory already
    }
    auto blocks = object->blocksOf(range);
    for (const FetchedBlockPtr& block : blocks)
    {
        ++block->readers; // keeps the block, although the stream is past it
    }
    addAhead(*object, ahead, added);
    object->trim();

    lock.unlock();
    post(object, std::move(added)); // runs the tasks, which take the lock, if no thread can be started
    lock.lock();
    for (const FetchedBlockPtr& block : blocks)
    {
        if (block->state == FetchedBlock::State::Queued)
        {
            fetch(*object, *block, lock); // on this thread: the pool may be busy prefetching for others
        }
    }
    m_settled.wait(
        lock, [&] { return std::all_of(blocks.begin(), blocks.end(), [](const auto& b) { return b->isSettled(); }); });
    const bool isWhole = std::all_of(blocks.begin(), blocks.end(),
        [](const FetchedBlockPtr& block) { return block->state == FetchedBlock::State::Ready; });
    for (const FetchedBlockPtr& block : blocks)
    {
        --block->readers;
    }
    object->trim();
    return isWhole ? blocks : FetchedBlocks();
}

/// Add what is missing in the window, in whole pieces except at the end of the object.
void ReadAhead::addAhead(FetchedObject& object, const ReadStreams::Ahead& ahead, FetchedBlocks& added)
{
    std::uint64_t end = std::min(ahead.offset + ahead.size, object.size());
    const std::uint64_t begin = object.firstMissing(ahead.offset);
    if (begin < end)
    {
        end -= end < object.size() ? (end - begin) % ahead.piece : 0;
        add(object, begin, end, ahead.piece, added);
    }
}

/// Add blocks for the bytes of [from, to) that no block has, as far as there is memory. A failure is logged.
void ReadAhead::add(
    FetchedObject& object, std::uint64_t from, std::uint64_t to, std::uint64_t piece, FetchedBlocks& added)
try
{
    std::ranges::copy(object.addMissing(from, to, piece, m_budget), std::back_inserter(added));
    if (object.firstMissing(from) < to)
    {
        closeIdleWindows(idleTurnsUnderPressure);
        std::ranges::copy(object.addMissing(from, to, piece, m_budget), std::back_inserter(added));
    }
}
catch (...)
{
    logFailedPrefetch(object.key(), {from, to - from}); // the blocks stay Queued: the first reader fetches them
}

void ReadAhead::post(const ObjectPtr& object, FetchedBlocks added)
try
{
    for (const FetchedBlockPtr& each : added)
    {
        m_pool.post(
            [this, object, queued = std::weak_ptr(each)]
            {
                std::unique_lock lock(m_mutex);
                const FetchedBlockPtr block = queued.lock();
                if (block && block->state == FetchedBlock::State::Queued)
                {
                    fetch(*object, *block, lock);
                }
            });
    }
}
catch (...)
{
    logFailedPrefetch(object->key(), added.front()->range); // as above
}

/// Close windows that were not read while each other reader made `maxTurns` reads, and free their memory.
void ReadAhead::closeIdleWindows(std::uint64_t maxTurns)
{
    std::size_t openWindows = 0;
    for (const ObjectPtr& object : m_objects)
    {
        openWindows += object->streams().openWindows();
    }
    const std::uint64_t maxIdleReads = maxTurns * (2 + openWindows); // 2: readers without a window count, too
    for (const ObjectPtr& object : m_objects)
    {
        object->streams().closeIdle(m_reads - std::min(m_reads, maxIdleReads));
        object->trim();
    }
}

/// Fetch a queued block. Logs a failure. Releases the lock during the download.
void ReadAhead::fetch(FetchedObject& object, FetchedBlock& block, std::unique_lock<std::mutex>& lock)
{
    block.state = FetchedBlock::State::Fetching;
    lock.unlock();
    bool isComplete = false;
    try
    {
        m_reader.readVersion(
            {Operation::GetObjectRange, object.key()}, block.bytes.data(), block.range, object.version());
        isComplete = true;
    }
    catch (...)
    {
        logFailedPrefetch(object.key(), block.range);
    }
    lock.lock();
    if (block.state == FetchedBlock::State::Gone)
    {
        return; // dropped during the download
    }
    if (isComplete)
    {
        block.state = FetchedBlock::State::Ready;
    }
    else
    {
        object.fail(block);
    }
    m_settled.notify_all();
}

/// Find or add an object. If it is there in another version, forget this one.
ReadAhead::ObjectPtr ReadAhead::objectAt(const std::string& key, const Version& version)
{
    const auto known = find(key);
    if (known != m_objects.end() && (*known)->version().tag == version.tag)
    {
        m_objects.splice(m_objects.begin(), m_objects, known);
        return m_objects.front();
    }
    if (known != m_objects.end() || m_objects.size() == maxObjects)
    {
        forget(known != m_objects.end() ? known : std::prev(m_objects.end()));
    }
    return m_objects.emplace_front(std::make_shared<FetchedObject>(key, version));
}

ReadAhead::Objects::const_iterator ReadAhead::find(const std::string& key) const
{
    return std::ranges::find(
        m_objects, key, [](const ObjectPtr& object) -> const std::string& { return object->key(); });
}

void ReadAhead::forget(Objects::const_iterator object)
{
    (*object)->drop(); // other calls may wait for its blocks
    m_objects.erase(object);
    m_settled.notify_all();
}

} // namespace storage::clients
