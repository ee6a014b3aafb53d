#include "ReadAhead.hpp"

#include <storage/clients/common/KeyRules.hpp>
#include <storage/cloudprovider/CloudExceptions.hpp>
#include <storage/cloudprovider/Logger.hpp>

#include <foundation/log/Severity.hpp>

#include <boost/exception/diagnostic_information.hpp>
#include <boost/iostreams/device/array.hpp>
#include <boost/iostreams/stream_buffer.hpp>
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

constexpr std::size_t mostObjects = 256; // more files than are read at a time; few enough to go through them all

// For how many turns of every reader a window stays open that is not read: a slow reader is to keep what was fetched.
constexpr std::uint64_t turnsInPlenty = 64;
constexpr std::uint64_t turnsInNeed = 4; // when others want the memory

constexpr std::uint64_t leastWorthARequest = 4 << 20; // bytes that take longer to arrive than a distant store to answer

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

/// Log the exception that is being handled. A milestone rather than an error, as nobody has come to harm.
void logWhyNotAhead(const std::string& key, const ByteRange& range)
{
    if (auto& logger = getLogger(); logger.isEnabled(foundation::log::severity::progress))
    {
        logger.write(foundation::log::severity::progress,
            fmt::format("reading ahead {} bytes from {} of {} failed, they are asked for again when needed: {}",
                range.size, range.offset, quoted(key), reason()));
    }
}

} // namespace

ReadAhead::ReadAhead(CloudClient& inner, const ReadAheadSettings& settings)
    : m_inner(inner)
    , m_mostAhead(settings.memory / 4 * 3) // so that one reader leaves room for the beginnings of another
    , m_wholePiece(std::min(leastWorthARequest, settings.memory / std::max(settings.transfers, std::size_t{1})))
    , m_buffers(settings.transfers == 0 ? 0 : settings.memory)
    , m_threads(std::max(settings.transfers, std::size_t{1}))
{
}

ReadAhead::~ReadAhead()
{
    const std::lock_guard lock(m_mutex);
    for (const ObjectPtr& object : m_objects)
    {
        object->forget(); // what was not begun finds its block gone
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

/// @return blocks that have the range, all Ready; empty: it must be asked for
std::vector<FetchedBlockPtr> ReadAhead::obtain(const std::string& key, const ByteRange& range)
{
    std::unique_lock lock(m_mutex);
    const ObjectPtr object = find(key);
    if (!object || range.offset >= object->size() || range.size > object->size() - range.offset)
    {
        return {};
    }
    const auto ahead = object->streams().advance(range, ++m_reads, m_mostAhead, m_wholePiece);
    if (m_reads % turnsInPlenty == 0) // not always, as all objects are looked at
    {
        closeIdleWindows(turnsInPlenty);
    }
    if (object->firstMissing(range.offset) != range.offset)
    {
        queue(object, range.offset, ahead.offset, range.size); // the rest, if its begin is there already
    }
    auto blocks = object->blocksOf(range);
    for (const FetchedBlockPtr& block : blocks)
    {
        ++block->readers; // which keeps it, now that the stream has passed it
    }
    fetchAhead(object, ahead);
    object->trim();

    for (const FetchedBlockPtr& block : blocks)
    {
        if (block->state == FetchedBlock::State::Queued)
        {
            fetch(*object, *block, lock); // rather than to wait for threads that are busy ahead of others
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
    return isWhole ? blocks : std::vector<FetchedBlockPtr>();
}

/// Queue what the window has room for, in whole pieces but for the end of the object.
void ReadAhead::fetchAhead(const ObjectPtr& object, const ReadStreams::Ahead& ahead)
{
    std::uint64_t end = std::min(ahead.offset + ahead.size, object->size());
    const std::uint64_t begin = object->firstMissing(ahead.offset);
    if (begin < end)
    {
        end -= end < object->size() ? (end - begin) % ahead.piece : 0;
        queue(object, begin, end, ahead.piece);
    }
}

/// Have those bytes of [from, to) fetched that are not there, as far as memory lasts. A failure is logged.
void ReadAhead::queue(const ObjectPtr& object, std::uint64_t from, std::uint64_t to, std::uint64_t piece)
try
{
    auto blocks = object->addMissing(from, to, piece, m_buffers);
    if (object->firstMissing(from) < to)
    {
        closeIdleWindows(turnsInNeed);
        std::ranges::copy(object->addMissing(from, to, piece, m_buffers), std::back_inserter(blocks));
    }
    for (const FetchedBlockPtr& added : blocks)
    {
        m_threads.post(
            [this, object, queued = std::weak_ptr(added)]
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
    logWhyNotAhead(object->key(), {from, to - from}); // a reader that comes before anyone else fetches what is queued
}

/// Take the memory of readers that others have long overtaken.
void ReadAhead::closeIdleWindows(std::uint64_t turns)
{
    std::size_t active = 0;
    for (const ObjectPtr& object : m_objects)
    {
        active += object->streams().active();
    }
    const std::uint64_t patience = turns * (2 + active); // reads; those who have no window yet take turns too
    for (const ObjectPtr& object : m_objects)
    {
        object->streams().closeIdle(m_reads - std::min(m_reads, patience));
        object->trim();
    }
}

/// Fetch a queued block. Never throws for a failure of the client below. Lets go of the lock meanwhile.
void ReadAhead::fetch(FetchedObject& object, FetchedBlock& block, std::unique_lock<std::mutex>& lock)
{
    block.state = FetchedBlock::State::Fetching;
    lock.unlock();
    bool isComplete = false;
    try
    {
        download(object.key(), block.range, block.bytes.data());
        isComplete = true;
    }
    catch (...)
    {
        logWhyNotAhead(object.key(), block.range);
    }
    lock.lock();
    if (block.state == FetchedBlock::State::Gone)
    {
        return; // the object is another one now
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

void ReadAhead::download(const std::string& key, const ByteRange& range, char* bytes)
{
    boost::iostreams::stream_buffer<boost::iostreams::basic_array_sink<char>> memory(bytes, range.size);
    std::ostream out(&memory);
    out.exceptions(std::ios_base::badbit); // a surplus must not pass unseen
    m_inner.getObjectRange(key, out, range.offset, range.offset + range.size - 1);
    if (const auto received = static_cast<std::streamoff>(out.tellp()); std::cmp_not_equal(received, range.size))
    {
        throw UnknownErrorException("Content too short", fmt::format("the store sent {} bytes", received));
    }
}

ReadAhead::ObjectPtr ReadAhead::find(const std::string& key)
{
    const auto entry = m_byKey.find(key);
    if (entry == m_byKey.end())
    {
        return nullptr;
    }
    m_objects.splice(m_objects.begin(), m_objects, entry->second);
    return m_objects.front();
}

ReadAhead::ObjectPtr ReadAhead::findOrAdd(const std::string& key)
{
    if (ObjectPtr object = find(key))
    {
        return object;
    }
    if (m_objects.size() >= mostObjects)
    {
        // Whoever works on an object holds a pointer of its own, got under this lock.
        const auto unused = std::find_if(
            m_objects.rbegin(), m_objects.rend(), [](const ObjectPtr& object) { return object.use_count() == 1; });
        if (unused != m_objects.rend())
        {
            m_byKey.erase((*unused)->key());
            m_objects.erase(std::next(unused).base());
        }
    }
    m_objects.push_front(std::make_shared<FetchedObject>(key));
    m_byKey.emplace(key, m_objects.begin());
    return m_objects.front();
}

/// Take a pointer back. An object of which nothing is known, and which nobody else works on, makes room for others.
void ReadAhead::release(ObjectPtr& object)
{
    const bool isUnused = object.use_count() == 2; // here and in the list
    const auto entry = m_byKey.find(object->key());
    if (isUnused && object->size() == 0)
    {
        m_objects.erase(entry->second);
        m_byKey.erase(entry);
    }
    object.reset();
}

ReadAhead::Opening::Opening(ReadAhead& owner, const std::string& key)
    : m_owner(owner)
{
    const std::lock_guard lock(owner.m_mutex);
    m_object = owner.findOrAdd(key);
    m_generation = m_object->generation();
}

ReadAhead::Opening::~Opening()
{
    const std::lock_guard lock(m_owner.m_mutex);
    if (!m_succeeded)
    {
        m_object->forget();
        m_owner.m_settled.notify_all();
    }
    m_owner.release(m_object);
}

void ReadAhead::Opening::succeeded(const std::vector<PartInfo>& parts)
{
    const std::lock_guard lock(m_owner.m_mutex);
    m_object->learn(parts, m_generation);
    m_owner.m_settled.notify_all();
    m_succeeded = true;
}

ReadAhead::Write::Write(ReadAhead& owner, const std::string& key)
    : m_owner(owner)
{
    const std::lock_guard lock(owner.m_mutex);
    m_object = owner.findOrAdd(key);
    m_object->beginWrite();
    owner.m_settled.notify_all();
}

ReadAhead::Write::~Write()
{
    const std::lock_guard lock(m_owner.m_mutex);
    m_object->endWrite();
    m_owner.m_settled.notify_all();
    m_owner.release(m_object);
}

} // namespace storage::clients
