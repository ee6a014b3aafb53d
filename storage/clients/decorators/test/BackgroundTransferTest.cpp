#include "BufferPool.hpp"
#include "awaitThreads.hpp"

#include <storage/clients/common/TransientException.hpp>
#include <storage/clients/decorators/CountingClient.hpp>
#include <storage/clients/decorators/FaultyClient.hpp>
#include <storage/clients/decorators/PipelinedUploadClient.hpp>
#include <storage/clients/decorators/ReadAheadClient.hpp>
#include <storage/clients/memory/MemoryClient.hpp>
#include <storage/clients/testing/ClientCalls.hpp>
#include <storage/cloudprovider/CloudExceptions.hpp>
#include <storage/cloudprovider/Logger.hpp>

#include <gmock/gmock.h>

#include <pthread.h>

#include <algorithm>
#include <atomic>
#include <condition_variable>
#include <future>
#include <map>
#include <mutex>
#include <numeric>
#include <random>
#include <set>
#include <thread>

// The clients that transfer on threads of their own.

namespace storage::clients
{

namespace
{

using namespace cloudprovider;
using namespace conformance;
using namespace testing;
using test::awaitThreads;

constexpr std::uint64_t size = 16;         // bytes of most ranges that are read
using Ranges = std::vector<std::uint64_t>; // by number

/// Records transfers, and holds those on other threads than the test's while it is closed.
class GatedClient : public InterceptingClient
{
public:
    using InterceptingClient::InterceptingClient;

    void setOpen(bool isOpen)
    {
        const std::lock_guard lock(m_mutex);
        m_isOpen = isOpen;
        m_changed.notify_all();
    }

    /// Wait until so many parts are held.
    void awaitParts(std::size_t count)
    {
        std::unique_lock lock(m_mutex);
        m_changed.wait(lock, [&] { return m_held.size() == count; });
    }

    /// Wait until there were so many requests for ranges of the key. @return the first range of each
    Ranges ranges(const std::string& key, std::size_t count = 0)
    {
        std::unique_lock lock(m_mutex);
        m_changed.wait(lock, [&] { return m_ranges[key].size() >= count; });
        return m_ranges[key];
    }

    void getObjectRange(const std::string& key, std::ostream& out, std::uint64_t first, std::uint64_t last) override
    {
        {
            std::unique_lock lock(m_mutex);
            m_ranges[key].push_back(first / size);
            hold(lock);
        }
        InterceptingClient::getObjectRange(key, out, first, last);
    }

protected:
    void around(const Call& call, const std::function<void()>& proceed) override
    {
        std::unique_lock lock(m_mutex);
        EXPECT_FALSE(call.operation == Operation::AbortMultipartUpload && m_held.contains({call.key, 0}));
        if (call.part != nullptr)
        {
            const std::pair part(call.key, call.part->Index);
            EXPECT_TRUE(m_held.insert(part).second) << "part " << part.second << " is in transfer already";
            hold(lock);
            m_held.erase(part);
        }
        lock.unlock();
        proceed();
    }

private:
    void hold(std::unique_lock<std::mutex>& lock)
    {
        m_changed.notify_all();
        m_changed.wait(lock, [this] { return m_isOpen || std::this_thread::get_id() == m_testThread; });
    }

    const std::thread::id m_testThread = std::this_thread::get_id();
    std::mutex m_mutex; // guards all members below
    std::condition_variable m_changed;
    bool m_isOpen = true;
    std::set<std::pair<std::string, std::size_t>> m_held; // parts, by key and index
    std::map<std::string, Ranges> m_ranges;
};

class BackgroundTransferTest : public Test
{
protected:
    BackgroundTransferTest() { getLogger().setEnabledSeverities(0); }
    ~BackgroundTransferTest() override
    {
        awaitThreads(1);
        EXPECT_THAT(store->openUploads(), IsEmpty());
    }

    std::uint64_t calls(Operation operation) const { return counted->callSnapshot()[operation].calls; }

    const std::shared_ptr<MemoryClient> store = std::make_shared<MemoryClient>();
    const std::shared_ptr<FaultyClient> faults = std::make_shared<FaultyClient>(store);
    const std::shared_ptr<CountingClient> counted = std::make_shared<CountingClient>(faults);
    std::shared_ptr<GatedClient> gate = std::make_shared<GatedClient>(counted);
};

/// Cases may leave uploads open and transfers in flight.
class PipelinedUploadClientTest : public BackgroundTransferTest
{
protected:
    ~PipelinedUploadClientTest() override
    {
        gate->setOpen(true);
        client.reset();
    }

    void open(std::size_t transfers, std::size_t memory = 1000)
    {
        client = std::make_shared<PipelinedUploadClient>(gate, PipelineSettings{transfers, memory});
        upload = client->createMultipartUpload("k", "");
    }

    PartInfo send(std::size_t index, const std::string& bytes)
    {
        return uploadPart(*client, "k", upload, index, bytes);
    }

    PartInfo copy(PartInfo part)
    {
        part.Tag = client->copyPart("k", upload, part);
        return part;
    }

    /// Wait until the transfer has ended, as an upload does that is opened with its tag.
    void await(const PartInfo& part)
    {
        client->abortMultipartUpload("other", client->createMultipartUpload("other", part.Tag));
    }

    void complete(const std::vector<PartInfo>& parts) { client->completeMultipartUpload("k", upload, parts); }

    /// Whether the part was sent on the caller's thread, and so has the store's tag.
    static bool wasSentHere(const PartInfo& part) { return !part.Tag.starts_with("part-"); }

    std::string storedTag() const { return store->openAnother()->getObjectParts("k").at(0).Tag; }

    std::shared_ptr<PipelinedUploadClient> client;
    std::string upload;
};

TEST_F(PipelinedUploadClientTest, SendsOnTheCallersThreadWithOneTransferOrWithoutThreads)
{
    store->put("k", "old");
    open(1);
    std::vector<PartInfo> parts{copy({0, 0, 3, storedTag()}), send(1, "more")};
    EXPECT_TRUE(wasSentHere(parts[0]) && wasSentHere(parts[1]));
    client->abortMultipartUpload("other", client->createMultipartUpload("other", ""));
    complete(parts);

    open(4);
    pthread_attr_t usual;
    ASSERT_EQ(pthread_getattr_default_np(&usual), 0);
    pthread_attr_t impossible = usual;
    ASSERT_EQ(pthread_attr_setstacksize(&impossible, std::size_t{1} << 60U), 0);
    ASSERT_EQ(pthread_setattr_default_np(&impossible), 0);
    unsigned warnings = 0;
    getLogger().setEnabledSeverities(foundation::log::severity::warning);
    foundation::log::setSink([&](auto, auto, auto) { ++warnings; });
    parts = {send(1, "new"), copy({2, 0, 3, storedTag()})};
    foundation::log::setSink({});
    ASSERT_EQ(pthread_setattr_default_np(&usual), 0);
    EXPECT_EQ(warnings, 1U) << "a warning for each part would hide all else";
    EXPECT_TRUE(wasSentHere(parts[0]) && wasSentHere(parts[1]));
    parts.push_back(send(3, "newer"));
    EXPECT_FALSE(wasSentHere(parts[2])) << "threads can be started again";
    complete(parts);
    EXPECT_EQ(store->get("k"), "newoldnewer");
}

TEST_F(PipelinedUploadClientTest, CompletesWithTheLastTransferOfAPart)
{
    open(3, 35);
    awaitThreads(1);
    gate->setOpen(false);
    const PartInfo first = send(0, "first");
    gate->awaitParts(1);
    send(0, "second");
    send(0, "third");
    send(1, "");
    const PartInfo other = send(2, "other part");
    gate->awaitParts(3); // these two overtake the third, which waits for the first
    awaitThreads(4);
    auto sending = std::async(std::launch::async, [&] { return send(0, std::string(40, 'x')); }); // has no buffer
    gate->setOpen(true);
    const PartInfo last = sending.get();
    EXPECT_THROW(complete({first}), UnknownErrorException);
    EXPECT_THROW(complete({{0, 0, other.Size, other.Tag}}), UnknownErrorException);
    EXPECT_EQ(calls(Operation::UploadPart), 5U) << "the second, which had not started, should be dropped";
    complete({last});
    EXPECT_EQ(store->get("k"), std::string(40, 'x'));

    upload = client->createMultipartUpload("k", "");
    gate->setOpen(false);
    send(0, "earlier");
    gate->awaitParts(1);
    auto opening = std::async(std::launch::async,
        [&]
        {
            for (int i = 0; i < 1000; ++i) // time for the next part to start too early, which the gate would report
            {
                std::this_thread::yield();
            }
            gate->setOpen(true);
        });
    complete({send(0, std::string(40, 'y'))});
    EXPECT_EQ(store->get("k"), std::string(40, 'y'));
}

TEST_F(PipelinedUploadClientTest, AbortDropsWhatHasNotStartedAndWaitsForTheRest)
{
    open(2, 50);
    gate->setOpen(false);
    std::vector<PartInfo> parts;
    while (parts.size() < 5)
    {
        parts.push_back(send(parts.size(), "some bytes"));
    }
    gate->awaitParts(2);
    faults->inject({.operation = Operation::UploadPart, .call = 1}); // of the two in flight
    faults->inject({.operation = Operation::AbortMultipartUpload, .call = 1});
    const std::string aborted = std::exchange(upload, client->createMultipartUpload("k", ""));
    auto aborting = std::async(std::launch::async, [&] { client->abortMultipartUpload("k", aborted); });
    const PartInfo part = send(9, "new bytes"); // gets a buffer when three parts were dropped
    gate->setOpen(true);
    EXPECT_THROW(aborting.get(), UnknownErrorException);
    EXPECT_THROW(client->completeMultipartUpload("k", aborted, {parts[4]}), UnknownErrorException);
    complete({part});
    EXPECT_EQ(store->get("k"), "new bytes");
    EXPECT_EQ(calls(Operation::UploadPart), 3U);

    upload = client->createMultipartUpload("k", "");
    EXPECT_FALSE(wasSentHere(send(1, std::string(50, 'x')))) << "all buffers should be free";
    store->abortMultipartUpload("k", upload);
    EXPECT_THROW(client->abortMultipartUpload("k", upload), ResourceNotFoundException);
    const std::uint64_t aborts = calls(Operation::AbortMultipartUpload);
    client->createMultipartUpload("k", "");
    faults->inject({.operation = Operation::AbortMultipartUpload,
        .failure = std::make_exception_ptr(TransientException("the store is away"))});
    client.reset();
    EXPECT_EQ(calls(Operation::AbortMultipartUpload), aborts + 1) << "of two open uploads";
    for (const auto& open : store->openUploads())
    {
        store->abortMultipartUpload(open.key, open.uploadId);
    }
}

TEST_F(PipelinedUploadClientTest, AcceptsProvisionalTagsWhileTheStoresAreKnown)
{
    open(4);
    const PartInfo sent = send(0, "old");
    complete({sent});
    upload = client->createMultipartUpload("k", sent.Tag);
    EXPECT_EQ(store->openUploads().at(0).tag, storedTag());

    gate->setOpen(false);
    const PartInfo copied = copy(sent);
    EXPECT_THROW(copy(copied), UnknownErrorException) << "it is not stored yet";
    auto waiting = std::async(std::launch::async, [&] { return client->createMultipartUpload("k", copied.Tag); });
    gate->awaitParts(1);
    gate->setOpen(true);
    const std::string next = waiting.get();
    complete({copied});
    EXPECT_EQ(store->openUploads().at(0).tag, storedTag()) << "it should wait for the copy";

    upload = next;
    std::vector<PartInfo> many;
    while (many.size() < 20'000)
    {
        many.push_back(send(many.size(), "x"));
    }
    complete(many);
    upload = client->createMultipartUpload("k", copied.Tag);
    EXPECT_EQ(store->openUploads().at(0).tag, "") << "it should be forgotten";
    EXPECT_THROW(copy(copied), UnknownErrorException);
}

TEST_F(PipelinedUploadClientTest, ReportsAFailureOnceAndRetriesOnCompletion)
{
    store->put("k", "old");
    open(4, 20);
    faults->inject({.operation = Operation::UploadPart});
    faults->inject({.operation = Operation::CopyPart});
    std::vector<PartInfo> parts;
    const std::function<PartInfo()> transfers[] = {[&] { return send(0, "some bytes"); },
        [&] {
            return copy({1, 0, 3, storedTag()});
        },
        [&] { return send(2, "more bytes"); }};
    for (const auto& transfer : transfers)
    {
        parts.push_back(transfer());
        await(parts.back());
        EXPECT_THROW(transfers[parts.size() % 3](), UnknownErrorException) << "the failure of part " << parts.size();
    }
    EXPECT_THROW(send(3, "last bytes"), UnknownErrorException) << "there is no buffer, so this is its own failure";
    for (int i = 0; i < 2; ++i)
    {
        EXPECT_THROW(complete(parts), UnknownErrorException);
        EXPECT_EQ(store->get("k"), "old");
    }
    faults->clearFaults();
    parts[0] = send(0, "new bytes"); // the completion has reported the failures
    EXPECT_TRUE(wasSentHere(parts[0])) << "failed parts fill the buffers";
    parts.push_back(send(3, "last bytes"));
    for (const auto end = std::chrono::steady_clock::now() + std::chrono::minutes(1); wasSentHere(parts[3]);)
    {
        ASSERT_LT(std::chrono::steady_clock::now(), end) << "the failed part keeps its buffer";
        parts[3] = send(3, "last bytes");
    }
    complete(parts);
    EXPECT_EQ(store->get("k"), "new bytesoldmore byteslast bytes");
}

TEST(BufferPoolTest, ReusesBuffersWithinItsLimit)
{
    BufferPool pool(300);
    auto other = pool.tryAcquire(100); // keeps the free buffers from being released
    auto large = pool.tryAcquire(100);
    auto small = pool.tryAcquire(60);
    const char* const bytes = small->data();
    large.reset();
    small.reset();
    EXPECT_EQ(pool.tryAcquire(55)->data(), bytes) << "the larger one fits, too";
    EXPECT_EQ(pool.tryAcquire(30)->data(), bytes);
    EXPECT_NE(pool.tryAcquire(29)->data(), bytes) << "half of it would be wasted";
    EXPECT_FALSE(pool.tryAcquire(201));
    auto waiting = std::async(std::launch::async, [&] { return pool.acquire(300).has_value(); });
    EXPECT_TRUE(pool.tryAcquire(200)) << "free buffers should make room";
    other.reset();
    EXPECT_TRUE(waiting.get());
    EXPECT_FALSE(pool.acquire(301));
}

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

class ReadAheadClientTest : public BackgroundTransferTest
{
protected:
    ~ReadAheadClientTest() override { client.reset(); }

    /// Start again with "k" open.
    void decorate(const ReadAheadSettings& settings = {.transfers = 1, .memory = 100 * size})
    {
        client.reset();
        gate = std::make_shared<GatedClient>(counted);
        client = std::make_unique<ReadAheadClient>(gate, settings);
        open("k");
    }

    /// Store version 1 and let the client know its size.
    void open(const std::string& key)
    {
        store->put(key, version(1));
        client->getObjectParts(key);
    }

    std::string read(std::uint64_t range, const std::string& key = "k", std::uint64_t ranges = 1)
    {
        return get(*client, key, range * size, (range + ranges) * size - 1);
    }

    /// Read ranges of version 1.
    void readOld(const Ranges& ranges, const std::string& key = "k")
    {
        for (const std::uint64_t range : ranges)
        {
            EXPECT_EQ(read(range, key), version(1).substr(range * size, size)) << "range " << range;
        }
    }

    /// Wait until the only thread has fetched all that was predicted: it fetches this last.
    void awaitPrefetches()
    {
        const std::size_t before = gate->ranges("last").size();
        open("last");
        readOld({0, 1}, "last");
        gate->ranges("last", before + 3);
        client->deleteObject("last"); // frees its memory
    }

    std::unique_ptr<ReadAheadClient> client;
};

TEST_F(ReadAheadClientTest, RequestsWhatIsReadAndWhatIsPredicted)
{
    const auto atCall = [&](Operation operation, const std::function<void()>& action)
    { faults->setHook([=](Operation now, const std::string&) { now == operation ? action() : void(); }); };
    const ReadAheadSettings usual{.transfers = 1, .memory = 100 * size};
    const struct
    {
        const char* name;
        Ranges read;
        Ranges requested; // the first range of each request
        ReadAheadSettings settings = {.transfers = 1, .memory = 100 * size};
        std::function<void()> before = [] {};
    } rows[] = {
        {"everything", upTo(40), {0, 1, 2, 3, 4, 5, 7, 11, 19, 35}},
        {"everything without memory", upTo(40), upTo(40), {1, 0}},
        {"everything without transfers", upTo(40), upTo(40), {0, 100 * size}},
        {"up to the limit", upTo(10), {0, 1, 2, 3, 4, 5, 7, 11, 18}, {1, 20 * size}},
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
        {"unknown size", {0, 1, 2}, {0, 1, 2}, usual, [&] { client->deleteObject("k"), put(*store, "k", version(1)); }},
        {"size before a write", {0, 1, 2}, {0, 1, 2}, usual,
            [&]
            {
                atCall(Operation::GetObjectParts, [&] { put(*client, "k", version(1)); });
                client->getObjectParts("k");
            }},
        {"size during a write", {0, 1, 2}, {0, 1, 2, 0, 1, 2}, usual,
            [&]
            {
                atCall(Operation::PutObject,
                    [&] {
                        client->getObjectParts("k"), readOld({0, 1, 2}), awaitPrefetches();
                    });
                put(*client, "k", version(1));
            }},
        {"forgotten size", {0, 1, 2}, {0, 1, 2}, usual,
            [&]
            {
                for (int i = 0; i < 256; ++i)
                {
                    open(std::to_string(i));
                }
            }},
    };
    for (const auto& row : rows)
    {
        SCOPED_TRACE(row.name);
        decorate(row.settings);
        row.before();
        faults->setHook({});
        for (const std::uint64_t range : row.read)
        {
            readOld({range});
            row.settings.transfers == 0 || row.settings.memory == 0 ? void() : awaitPrefetches();
        }
        EXPECT_THAT(gate->ranges("k"), UnorderedElementsAreArray(row.requested));
        EXPECT_EQ(get(*client, "k", 3, 2), "");
        EXPECT_THROW(get(*client, "k", 39 * size, 40 * size), UnknownErrorException);
        EXPECT_THROW(get(*client, "k", 0, UINT64_MAX), UnknownErrorException);
    }
    decorate();
    readOld({0, 1, 2});
    awaitPrefetches(); // of 3 and 4
    EXPECT_EQ(read(3, "k", 10), version(1).substr(3 * size, 10 * size));
    EXPECT_THAT(gate->ranges("k"), UnorderedElementsAreArray(upTo(6)));
    readOld({20, 21, 22});
    awaitPrefetches(); // of 23
    store->put("k", version(2));
    client->getObjectParts("k");
    EXPECT_EQ(read(23), version(2).substr(23 * size, size)) << "the tags tell that the object was replaced";
}

TEST_F(ReadAheadClientTest, AFailureClosesTheWindow)
{
    decorate();
    faults->setHook(
        [reader = std::this_thread::get_id()](Operation, const std::string&)
        {
            if (std::this_thread::get_id() != reader)
            {
                throw UnknownErrorException("Lost");
            }
        });
    for (const std::uint64_t range : upTo(4))
    {
        readOld({range});
        awaitPrefetches();
    }
    EXPECT_THAT(gate->ranges("k"), UnorderedElementsAre(0, 1, 2, 2, 3, 3, 4));
    faults->setHook({});
    faults->setDownloadLimit(size - 1);
    for (const std::uint64_t range : upTo(10))
    {
        EXPECT_EQ(read(range).size(), size - 1) << "bytes that were not received should not be delivered";
    }
}

TEST_F(ReadAheadClientTest, StaysWithinItsMemoryAndTakesItFromIdleReaders)
{
    const auto fill = [this](std::size_t transfers)
    {
        decorate({transfers, 8 * size});
        gate->setOpen(false);
        for (std::size_t i = 0; i < 12; ++i)
        {
            const std::string key = std::to_string(transfers) + "/" + std::to_string(i);
            open(key);
            readOld({0, 1}, key);
            gate->ranges(key, i < std::min<std::size_t>(8, transfers) ? 3 : 2);
        }
    };
    fill(50);
    EXPECT_THAT(gate->ranges("50/8"), SizeIs(2)) << "there is memory for 8 ranges";
    gate->setOpen(true);

    fill(1);           // 1 range in flight, 7 in the queue
    readOld(upTo(39)); // the readers might come back,
    readOld(upTo(39)); // but do not
    open("other");
    readOld({0, 1}, "other");
    gate->setOpen(true);
    gate->ranges("other", 3);
}

TEST_F(ReadAheadClientTest, DropsWhatAReaderLeftAfterManyOtherReads)
{
    decorate();
    open("left");
    readOld({0, 1, 2}, "left");
    gate->ranges("left", 5); // 3 and 4 are prefetched
    readOld(Ranges(100, 20));
    readOld({3}, "left");
    EXPECT_THAT(gate->ranges("left"), Contains(3).Times(1)) << "there is memory to keep it for a while";
    readOld(Ranges(400, 20));
    readOld({4}, "left");
    EXPECT_THAT(gate->ranges("left"), Contains(4).Times(2));
}

TEST_F(ReadAheadClientTest, ReadersSeeOneVersionThatWasThere)
{
    decorate({.transfers = 3, .memory = 30 * size});
    std::mutex writing;
    std::atomic<std::uint32_t> begun = 1;
    std::atomic<std::uint32_t> done = 1;
    faults->inject({.operation = Operation::DeleteObject});
    faults->setHook( // a write that fails may change the object, too
        [&](Operation operation, const std::string&)
        { operation == Operation::DeleteObject ? put(*store, "k", version(begun)) : void(); });
    const std::function<void()> writes[] = {[&] { put(*client, "k", version(begun)); },
        [&] { putParts(*client, "k", {version(begun)}); },
        [&] { EXPECT_THROW(client->deleteObject("k"), UnknownErrorException); }};
    const auto write = [&](std::size_t kind)
    {
        const std::lock_guard lock(writing);
        ++begun;
        writes[kind]();
        done.store(begun);
    };
    const auto readAndWrite = [&](unsigned seed)
    {
        std::mt19937 random(seed);
        for (int round = 0; round < 500; ++round)
        {
            random() % 8 == 0 ? write(random() % 3) : void(client->getObjectParts("k"));
            const std::uint64_t ranges = 1 + random() % 3;
            for (std::uint64_t at = random() % 2 == 0 ? 0 : random() % 40; at + ranges <= 40 && random() % 8 != 0;
                 at += ranges)
            {
                std::uint32_t number = done;
                const std::string bytes = read(at, "k", ranges);
                const std::uint32_t last = begun;
                while (bytes != version(number).substr(at * size, ranges * size))
                {
                    ASSERT_LT(number++, last) << "seed " << seed << ", round " << round << ", range " << at;
                }
            }
        }
    };
    const auto seed = static_cast<unsigned>(UnitTest::GetInstance()->random_seed());
    std::thread other(readAndWrite, seed);
    readAndWrite(seed + 1);
    other.join();
}

} // namespace

} // namespace storage::clients
