#include "FakeClock.hpp"
#include "MemoryBudget.hpp"
#include "MemoryRemoteStore.hpp"
#include "ObjectReader.hpp"
#include "ReadAhead.hpp"
#include "TaskPool.hpp"
#include "awaitThreads.hpp"

#include <storage/clients/common/KeyRules.hpp>
#include <storage/clients/common/TransientException.hpp>
#include <storage/cloudprovider/CloudExceptions.hpp>
#include <storage/cloudprovider/Logger.hpp>

#include <gmock/gmock.h>

#include <chrono>
#include <functional>
#include <future>
#include <map>
#include <numeric>
#include <sstream>
#include <thread>

namespace storage::clients
{

namespace
{

using namespace cloudprovider;
using namespace std::chrono_literals;
using namespace testing;
using test::Fault;
using test::MemoryBucket;
using test::StoreRequest;

/// A client's reading side. A request is retried twice, and twice more whenever it has delivered bytes.
struct Reading
{
    Reading(MemoryBucket& bucket, std::size_t threads, std::uint64_t memory)
        : settings{.transfers = std::max<std::size_t>(threads, 1), .memory = memory}
        , store(bucket.connect())
        , pool(threads)
    {
    }

    ~Reading() { readAhead.drop(); }

    std::string get(const std::string& key, std::uint64_t first, std::uint64_t last)
    {
        std::ostringstream out;
        if (!readAhead.read(key, out, {first, last - first + 1}))
        {
            reader.read(key, out, first, last);
        }
        return out.str();
    }

    const RemoteSettings settings;
    const std::unique_ptr<RemoteStore> store;
    test::FakeClock time;
    Retry retry{{1s, 1s, 2500ms}, time.clock(), nullptr};
    VersionPins pins;
    ObjectReader reader{*store, retry, pins, 256 << 10};
    MemoryBudget budget{settings.memory};
    ReadAhead readAhead{reader, pins, pool, budget, settings};
    TaskPool pool;
};

class ReadTest : public Test
{
protected:
    ReadTest() { getLogger().setEnabledSeverities(0); }

    const std::shared_ptr<MemoryBucket> bucket = std::make_shared<MemoryBucket>();
};

/// A buffer without positions, which reports this as Boost's buffers do, or reports meaningless positions.
template <bool reportsPositions>
class Pipe : public std::stringbuf
{
    pos_type seekoff(off_type, std::ios_base::seekdir, std::ios_base::openmode) override
    {
        return reportsPositions ? m_position++ : throw std::ios_base::failure("no positions");
    }

    off_type m_position = 100;
};

TEST_F(ReadTest, ABrokenReadGoesOnAtTheSameVersionOrStartsAgain)
{
    const auto breakAt = [](std::uint64_t bytes) { return Fault{.how = Fault::How::Break, .bytes = bytes}; };
    const Fault corrupt{.how = Fault::How::Corrupt};
    const std::string old = "0123456789";
    const ByteRange whole;
    const ByteRange rest{4, 6};
    const struct
    {
        const char* name;
        ByteRange range;
        std::vector<Fault> faults; // of the first requests
        std::vector<ByteRange> requested;
        std::string result; // or a part of the failure's detail
        bool opened = true;
        std::string replacement = {}; // written at the last request
        bool isOurs = true;           // the replacement
    } rows[] = {
        {"whole", whole, {breakAt(4)}, {whole, rest}, old},
        {"range", {2, 7}, {breakAt(3), breakAt(0), breakAt(2)}, {{2, 7}, {5, 4}, {5, 4}, {7, 2}}, "2345678"},
        {"after the last byte", whole, {breakAt(10)}, {whole}, old},
        {"not opened", whole, {breakAt(4)}, {whole, rest}, old, false},
        {"wrong bytes", whole, {corrupt}, {whole, whole}, old},
        {"the rest is wrong", {0, 9}, {breakAt(4), corrupt}, {{0, 9}, {4, 5}, {0, 9}}, "012345678"},
        {"replaced", whole, {breakAt(4)}, {whole, rest, whole}, "ABCDEFGHIJ", true, "ABCDEFGHIJ"},
        {"shorter", whole, {breakAt(4)}, {whole, rest, whole}, "became shorter", true, "A"},
        {"too short", {4, 3}, {breakAt(1)}, {{4, 3}, {5, 2}, {4, 3}}, "4 to 6 of \"k\" end beyond", true, "ABCD"},
        {"others", whole, {breakAt(4)}, {whole, rest}, "changed or removed", true, "ABCDEFGHIJ", false},
        {"others, not opened", whole, {breakAt(4)}, {whole, rest, whole}, "ABCD", false, "ABCD", false},
        {"beyond the end", {9, 2}, {}, {{9, 2}}, "9 to 10 of \"k\" end beyond"},
        {"far beyond the end", {20, 2}, {}, {{20, 2}}, "20 to 21 of \"k\" end beyond"},
    };
    for (const auto& row : rows)
    {
        SCOPED_TRACE(row.name);
        const auto expectRead = [&](std::stringbuf* buffer, const std::string& result) // null: into memory
        {
            bucket->faults = {};
            Reading client(*bucket, 0, 0);
            bucket->put("k", old);
            row.opened ? VersionPins::Opening(client.pins, "k").opened({bucket->tag("k"), old.size()}) : void();
            std::vector<ByteRange> requested;
            bucket->faults = [&](const StoreRequest& request) -> std::optional<Fault>
            {
                requested.push_back(request.range);
                if (requested.size() == row.faults.size() + 1 && !row.replacement.empty())
                {
                    VersionPins::Write write(client.pins, "k");
                    bucket->put("k", row.replacement);
                    row.isOurs ? write.succeeded({bucket->tag("k"), row.replacement.size()}) : void();
                }
                return requested.size() <= row.faults.size() ? std::optional(row.faults[requested.size() - 1])
                                                             : std::nullopt;
            };
            std::string read(row.range.size, '.');
            std::ostream out(buffer);
            out << "new ";
            try
            {
                buffer == nullptr ? client.reader.readVersion({Operation::GetObjectRange, "k"}, read.data(), row.range,
                                        {bucket->tag("k"), old.size()})
                                  : client.reader.read("k", out, row.range.offset,
                                        row.range.offset + std::max(row.range.size, std::uint64_t{1}) - 1);
                EXPECT_EQ(buffer == nullptr ? "new " + read : buffer->str(), "new " + result);
            }
            catch (const UnknownErrorException& failure)
            {
                EXPECT_THAT(failure.detail(), Optional(HasSubstr(result)));
            }
            return requested;
        };
        std::stringbuf text;
        EXPECT_EQ(expectRead(&text, row.result), row.requested);
        const bool startsAgain = row.requested.size() > 1 && row.requested.back() == row.range;
        Pipe<false> pipe;
        expectRead(&pipe, startsAgain ? "cannot be rewound" : row.result);
        Pipe<true> confused;
        expectRead(&confused, startsAgain ? "cannot be rewound" : row.result);
        row.replacement.empty() && row.range != whole ? void(expectRead(nullptr, row.result)) : void();
    }
}

TEST_F(ReadTest, FindsListsAndOpens)
{
    Reading client(*bucket, 0, 0);
    for (const std::string& key : {std::string(), std::string(maxKeyBytes + 1, 'x')})
    {
        EXPECT_FALSE(client.reader.find({Operation::GetObjectInfo, key}));
        EXPECT_THROW(client.reader.parts(key), ResourceNotFoundException);
        EXPECT_THROW(client.get(key, 0, 0), ResourceNotFoundException);
    }
    EXPECT_THAT(bucket->takeRequests(), IsEmpty());
    EXPECT_THROW(client.reader.parts("none"), ResourceNotFoundException);

    bucket->put("a", std::string(16 << 10, 'x'));
    bucket->put("b", std::string((16 << 10) + 1, 'x'));
    bucket->put("c", "");
    bucket->faults = [wasBroken = false](const StoreRequest&) mutable
    {
        const Fault broken{.how = Fault::How::Break, .bytes = 5};
        return std::exchange(wasBroken, true) ? std::nullopt : std::optional(broken);
    };
    const std::map<std::string, std::size_t> firstReads{{"a", 0}, {"b", 1}, {"c", 0}};
    for (const auto& [key, requests] : firstReads)
    {
        const std::uint64_t size = client.reader.parts(key).at(0).Size;
        for (const std::size_t expected : {requests, std::size_t{1}})
        {
            bucket->takeRequests();
            EXPECT_EQ(client.get(key, 0, 0).size(), size);
            EXPECT_THAT(bucket->takeRequests(), SizeIs(expected)) << key << ": the content is kept for one read";
        }
    }

    bucket->emptyPages = 2;
    bucket->pageSize = 2;
    std::string token;
    EXPECT_THAT(client.reader.list("", token, {}), SizeIs(2));
    EXPECT_THAT(bucket->takeRequests(), SizeIs(3));
    const std::string before = token;
    bucket->faults = [this](const StoreRequest&)
    {
        const std::size_t request = bucket->count("listObjects");
        return request == 1   ? std::optional(Fault())
               : request == 2 ? std::nullopt
                              : throw UnknownErrorException("Denied");
    };
    EXPECT_THROW(client.reader.list("", token, {}), UnknownErrorException);
    EXPECT_EQ(token, before);
    bucket->faults = {};
    EXPECT_THAT(client.reader.list("", token, {}), SizeIs(1));
    EXPECT_EQ(token, "");
    bucket->emptyPages = 1000;
    EXPECT_THROW(client.reader.list("", token, {}), UnknownErrorException) << "the listing does not advance";
}

TEST(MemoryBudgetTest, ReusesBuffersWithinItsLimits)
{
    MemoryBudget budget(600);
    auto other = budget.acquireForPart(100); // keeps the free buffers from being released
    auto large = budget.tryAcquireForPrefetch(100);
    auto small = budget.tryAcquireForPrefetch(60);
    const char* const bytes = small->data();
    large.reset();
    small.reset();
    EXPECT_EQ(budget.tryAcquireForPrefetch(55)->data(), bytes) << "the larger one fits, too";
    EXPECT_EQ(budget.acquireForPart(30)->data(), bytes);
    EXPECT_NE(budget.acquireForPart(29)->data(), bytes) << "half of it would be wasted";
    EXPECT_FALSE(budget.tryAcquireForPrefetch(301));
    EXPECT_FALSE(budget.acquireForPart(301)) << "prefetches might fill the other half forever";
    const auto most = budget.tryAcquireForPrefetch(245);
    EXPECT_NE(budget.tryAcquireForPrefetch(55)->data(), bytes) << "the buffer is beyond the half";
    auto prefetched = budget.tryAcquireForPrefetch(55);
    EXPECT_FALSE(budget.tryAcquireForPrefetch(1));
    auto waiting = std::async(std::launch::async, [&] { return budget.acquireForPart(300).has_value(); });
    EXPECT_TRUE(budget.acquireForPart(200)) << "free buffers should make room";
    EXPECT_EQ(waiting.wait_for(1ms), std::future_status::timeout);
    other.reset();
    EXPECT_TRUE(waiting.get());
    const auto half = budget.acquireForPart(300);
    EXPECT_TRUE(half) << "prefetches keep their half only";
    prefetched.reset();
    const auto rest = budget.acquireForPart(50);
    EXPECT_FALSE(budget.tryAcquireForPrefetch(6)) << "the parts have the rest";
}

constexpr std::uint64_t size = 16;         // bytes of most ranges that are read
using Ranges = std::vector<std::uint64_t>; // by number

/// An object of 40 ranges. Each four bytes tell the version and the position.
std::string version(std::uint32_t number)
{
    std::vector<std::uint32_t> words(40 * size / 4);
    std::iota(words.begin(), words.end(), number << 16U);
    return {reinterpret_cast<const char*>(words.data()), 40 * size};
}

Ranges upTo(std::uint64_t end)
{
    Ranges ranges(end);
    std::iota(ranges.begin(), ranges.end(), 0);
    return ranges;
}

class ReadAheadTest : public ReadTest
{
protected:
    ~ReadAheadTest() override
    {
        client.reset();
        test::awaitThreads(1);
    }

    /// Start again with "k" open. @param memory  bytes of prefetches
    void start(std::size_t threads = 1, std::uint64_t memory = 100 * size)
    {
        client.reset();
        bucket->takeRequests();
        client = std::make_unique<Reading>(*bucket, threads, 2 * memory);
        bucket->faults = {};
        open("k");
    }

    /// Store version 1 and let the client know its size.
    void open(const std::string& key)
    {
        bucket->put(key, version(1));
        client->reader.parts(key);
    }

    std::string read(std::uint64_t range, const std::string& key = "k", std::uint64_t ranges = 1)
    {
        return client->get(key, range * size, (range + ranges) * size - 1);
    }

    /// Read ranges of version 1.
    void readOld(const Ranges& ranges, const std::string& key = "k")
    {
        for (const std::uint64_t range : ranges)
        {
            EXPECT_EQ(read(range, key), version(1).substr(range * size, size)) << "range " << range;
        }
    }

    /// Wait until there were so many requests for ranges of the key. @return the first range of each
    Ranges ranges(const std::string& key, std::size_t count = 0)
    {
        Ranges found;
        const auto isKnown = [&](const std::vector<StoreRequest>& requests)
        {
            found.clear();
            for (const StoreRequest& request : requests)
            {
                const bool opens = request.range.size > 40 * size;
                request.key == key && !opens ? found.push_back(request.range.offset / size) : void();
            }
            return found.size() >= count;
        };
        bucket->await(isKnown);
        return found;
    }

    /// Wait until the only thread has fetched all that was predicted: it fetches this last.
    void awaitPrefetches()
    {
        const std::size_t before = ranges("last").size();
        open("last");
        readOld({0, 1}, "last");
        ranges("last", before + 3);
        ReadAhead::Write(client->readAhead, "last"); // frees its memory
    }

    std::unique_ptr<Reading> client;
};

TEST_F(ReadAheadTest, RequestsWhatIsReadAndWhatIsPredicted)
{
    const struct
    {
        const char* name;
        Ranges read;
        Ranges requested; // the first range of each request
        std::size_t threads = 1;
        std::uint64_t memory = 100 * size;
        std::function<void()> before = [] {};
    } rows[] = {
        {"everything", upTo(40), {0, 1, 2, 3, 4, 5, 7, 11, 19, 35}},
        {"everything without memory", upTo(40), upTo(40), 1, 0},
        {"everything without threads", upTo(40), upTo(40), 0},
        {"up to the limit", upTo(10), {0, 1, 2, 3, 4, 5, 7, 11, 18}, 1, 20 * size},
        {"from the middle", {7, 8, 9, 10}, {7, 8, 9, 10, 11, 12}},
        {"at the end", {36, 37, 38, 39}, {36, 37, 38, 39}},
        {"random", {20, 5, 30, 1, 10, 21, 33}, {20, 5, 30, 1, 10, 21, 33}},
        {"backwards", {5, 4, 3, 2}, {5, 4, 3, 2}},
        {"chance", {20, 4, 30, 21, 2, 31, 5}, {20, 4, 30, 21, 2, 31, 5}},
        {"two readers", {0, 20, 1, 21, 2, 22, 23, 3}, {0, 1, 2, 3, 4, 5, 20, 21, 22, 23, 24, 25}},
        {"readers in step", {0, 0, 1, 1, 2, 2, 3, 3, 4, 4}, {0, 0, 1, 1, 2, 3, 4, 5, 7}},
        {"jump into the window", {0, 1, 2, 3, 5, 6, 7, 8}, {0, 1, 2, 3, 4, 5, 6, 7, 8, 9, 10}},
        {"one read elsewhere", {0, 1, 2, 20, 3}, {0, 1, 2, 3, 4, 5, 20}},
        {"many reads elsewhere", {0, 1, 2, 11, 13, 15, 17, 19, 21, 23, 25, 3},
            {0, 1, 2, 3, 3, 4, 11, 13, 15, 17, 19, 21, 23, 25}},
        {"a failure closes the window", upTo(4), {0, 1, 2, 2, 3, 3, 4}, 1, 100 * size,
            [&]
            {
                bucket->faults = [reader = std::this_thread::get_id()](const StoreRequest&) {
                    return std::this_thread::get_id() == reader ? std::optional<Fault>()
                                                                : throw UnknownErrorException("Lost");
                };
            }},
        {"forgotten reader", {2}, {0, 1, 2, 2}, 1, 100 * size,
            [&]
            {
                readOld({0, 1}), awaitPrefetches();
                for (int i = 0; i < 256; ++i)
                {
                    open(std::to_string(i)), readOld({0}, std::to_string(i));
                }
            }},
    };
    for (const auto& row : rows)
    {
        SCOPED_TRACE(row.name);
        start(row.threads, row.memory);
        row.before();
        for (const std::uint64_t range : row.read)
        {
            readOld({range});
            row.threads == 0 || row.memory == 0 ? void() : awaitPrefetches();
        }
        EXPECT_THAT(ranges("k"), UnorderedElementsAreArray(row.requested));
        EXPECT_THROW(client->get("k", 39 * size, 40 * size), UnknownErrorException);
    }
    start();
    readOld({0, 1, 2});
    awaitPrefetches(); // of 3 and 4
    EXPECT_EQ(read(3, "k", 10), version(1).substr(3 * size, 10 * size));
    EXPECT_THAT(ranges("k"), UnorderedElementsAreArray(upTo(6)));
    readOld({20, 21, 22});
    awaitPrefetches(); // of 23
    bucket->put("k", version(2));
    client->reader.parts("k");
    EXPECT_EQ(read(23), version(2).substr(23 * size, size)) << "the tags tell that the object was replaced";
}

TEST_F(ReadAheadTest, StaysWithinItsMemoryAndTakesItFromIdleReaders)
{
    const auto fill = [this](std::size_t threads)
    {
        start(threads, 8 * size);
        bucket->hold("getObject");
        for (std::size_t i = 0; i < 12; ++i)
        {
            const std::string key = std::to_string(i);
            open(key);
            readOld({0, 1}, key);
            ranges(key, i < std::min<std::size_t>(8, threads) ? 3 : 2);
        }
    };
    fill(50);
    EXPECT_THAT(ranges("8"), SizeIs(2)) << "there is memory for 8 ranges";
    bucket->hold("");

    fill(1);           // 1 range in flight, 7 in the queue
    readOld(upTo(39)); // the readers might come back,
    readOld(upTo(39)); // but do not
    open("other");
    readOld({0, 1}, "other");
    bucket->hold("");
    ranges("other", 3);
}

TEST_F(ReadAheadTest, DropsWhatAReaderLeftAfterManyOtherReads)
{
    start();
    open("left");
    readOld({0, 1, 2}, "left");
    ranges("left", 5); // 3 and 4 are prefetched
    readOld(Ranges(100, 20));
    readOld({3}, "left");
    EXPECT_THAT(ranges("left"), Contains(3).Times(1)) << "there is memory to keep it for a while";
    readOld(Ranges(400, 20));
    readOld({4}, "left");
    EXPECT_THAT(ranges("left"), Contains(4).Times(2));
}

TEST_F(ReadAheadTest, DoesNotFetchWhatIsQueuedWhenItIsDropped)
{
    start();
    bucket->hold("getObject");
    open("queued");
    readOld({0, 1});
    ranges("k", 3); // the thread waits
    readOld({0, 1}, "queued");
    client->readAhead.drop();
    bucket->hold("");
    client.reset();
    EXPECT_THAT(ranges("queued"), SizeIs(2));
}

} // namespace

} // namespace storage::clients
