#include "BufferPool.hpp"
#include "ReadStreams.hpp"
#include "awaitThreads.hpp"

#include <storage/clients/common/TransientException.hpp>
#include <storage/clients/decorators/CountingClient.hpp>
#include <storage/clients/decorators/FaultyClient.hpp>
#include <storage/clients/decorators/FindInterface.hpp>
#include <storage/clients/decorators/PipelinedUploadClient.hpp>
#include <storage/clients/decorators/ReadAheadClient.hpp>
#include <storage/clients/memory/MemoryClient.hpp>
#include <storage/cloudprovider/CloudExceptions.hpp>
#include <storage/cloudprovider/Logger.hpp>

#include <gmock/gmock.h>

#include <pthread.h>

#include <algorithm>
#include <atomic>
#include <condition_variable>
#include <future>
#include <mutex>
#include <numeric>
#include <random>
#include <set>
#include <sstream>
#include <thread>

// The clients that transfer on threads of their own.

namespace storage::clients
{

namespace
{

using namespace cloudprovider;
using namespace testing;
using test::awaitThreads;

constexpr std::uint64_t size = 16; // bytes of most ranges that are read

/// Records transfers, and holds those on other threads than the test's while it is closed: parts before they reach the
/// store, and ranges after they were fetched.
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

    /// Wait until so many parts are in transfer.
    void awaitParts(std::size_t count)
    {
        std::unique_lock lock(m_mutex);
        m_changed.wait(lock, [&] { return m_parts.size() >= count; });
    }

    /// Wait until so many ranges of the key were requested. @return their numbers, in order
    std::vector<std::uint64_t> ranges(const std::string& key, std::size_t count = 0)
    {
        std::unique_lock lock(m_mutex);
        m_changed.wait(lock, [&] { return m_ranges[key].size() >= count; });
        return m_ranges[key];
    }

    void getObjectRange(const std::string& key, std::ostream& out, std::uint64_t first, std::uint64_t last) override
    {
        std::unique_lock lock(m_mutex);
        m_ranges[key].push_back(first / size);
        rangeBytes += last - first + 1;
        m_changed.notify_all();
        lock.unlock();
        InterceptingClient::getObjectRange(key, out, first, last);
        lock.lock();
        m_changed.wait(lock, [this] { return m_isOpen || isTestThread(); });
    }

    std::size_t maxParts = 0; // in transfer at a time
    std::set<std::size_t> partsOfTestThread;
    std::atomic<std::uint64_t> rangeBytes = 0; // that were requested

protected:
    void around(const Call& call, const std::function<void()>& proceed) override
    {
        std::unique_lock lock(m_mutex);
        if (call.part == nullptr)
        {
            EXPECT_FALSE(call.operation == Operation::AbortMultipartUpload && m_parts.contains({call.key, 0}));
            lock.unlock();
            return proceed();
        }
        const auto [part, isNew] = m_parts.emplace(call.key, call.part->Index);
        EXPECT_TRUE(isNew) << "part " << call.part->Index << " is in transfer already";
        maxParts = std::max(maxParts, m_parts.size());
        isTestThread() ? void(partsOfTestThread.insert(call.part->Index))
                       : void(partsOfTestThread.erase(call.part->Index));
        m_changed.notify_all();
        m_changed.wait(lock, [this] { return m_isOpen || isTestThread(); });
        lock.unlock();
        const std::shared_ptr<void> leaving(nullptr,
            [&, part = part](void*)
            {
                lock.lock();
                m_parts.erase(part);
            });
        proceed();
    }

private:
    bool isTestThread() const { return std::this_thread::get_id() == m_testThread; }

    const std::thread::id m_testThread = std::this_thread::get_id();
    std::mutex m_mutex; // guards all members below, and those above while transfers are in progress
    std::condition_variable m_changed;
    bool m_isOpen = true;
    std::set<std::pair<std::string, std::size_t>> m_parts; // in transfer, by key and index
    std::map<std::string, std::vector<std::uint64_t>> m_ranges;
};

class BackgroundTransferTest : public Test
{
protected:
    BackgroundTransferTest() { getLogger().setEnabledSeverities(0); }
    ~BackgroundTransferTest() override
    {
        awaitThreads(1);
        EXPECT_THAT(store->openUploads(), IsEmpty());
        getLogger().setEnabledSeverities(m_severities);
    }

    std::uint64_t calls(Operation operation) const { return counted->callSnapshot()[operation].calls; }

    const std::shared_ptr<MemoryClient> store = std::make_shared<MemoryClient>();
    const std::shared_ptr<FaultyClient> faults = std::make_shared<FaultyClient>(store);
    const std::shared_ptr<CountingClient> counted = std::make_shared<CountingClient>(faults);
    std::shared_ptr<GatedClient> gate = std::make_shared<GatedClient>(counted);

private:
    const std::uint32_t m_severities = getLogger().enabledSeverities();
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
        std::istringstream content(bytes);
        PartInfo part{index, 0, bytes.size(), ""};
        part.Tag = client->uploadPart("k", upload, part, content);
        return part;
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

    bool wasSentHere(std::size_t index) const { return gate->partsOfTestThread.contains(index); }

    std::string storedTag() const { return store->getObjectParts("k").at(0).Tag; }

    std::shared_ptr<PipelinedUploadClient> client;
    std::string upload;
};

TEST_F(PipelinedUploadClientTest, SendsAndCopiesSeveralPartsAtATime)
{
    store->put("k", "0123456789");
    open(4);
    awaitThreads(1);
    gate->setOpen(false);
    const std::vector<PartInfo> parts{
        send(0, "first "), copy({1, 2, 3, storedTag()}), send(2, " third "), send(3, "fourth "), send(4, "fifth")};
    gate->awaitParts(4);
    awaitThreads(5);
    gate->setOpen(true);
    complete(parts);
    EXPECT_EQ(store->get("k"), "first 234 third fourth fifth");
    EXPECT_EQ(gate->maxParts, 4U);
    EXPECT_EQ(findInterface<UploadInventory>(*client), store.get());
}

TEST_F(PipelinedUploadClientTest, SendsOnTheCallersThreadWithOneTransferOrWithoutThreads)
{
    open(1);
    store->completeMultipartUpload("k", upload, {send(0, "old")});
    EXPECT_TRUE(wasSentHere(0));

    open(4);
    pthread_attr_t usual;
    ASSERT_EQ(pthread_getattr_default_np(&usual), 0);
    pthread_attr_t impossible = usual;
    ASSERT_EQ(pthread_attr_setstacksize(&impossible, std::size_t{1} << 60U), 0);
    ASSERT_EQ(pthread_setattr_default_np(&impossible), 0);
    const PartInfo sent = send(1, "new");
    const PartInfo copied = copy({2, 0, 3, storedTag()});
    ASSERT_EQ(pthread_setattr_default_np(&usual), 0);
    EXPECT_TRUE(wasSentHere(1) && wasSentHere(2));
    complete({sent, copied, send(3, "newer")});
    EXPECT_FALSE(wasSentHere(3)) << "threads can be started again";
    EXPECT_EQ(store->get("k"), "newoldnewer");
}

TEST_F(PipelinedUploadClientTest, CompletesWithTheLastTransferOfAPart)
{
    open(3, 35);
    gate->setOpen(false);
    std::vector<PartInfo> stale{send(0, "first")};
    gate->awaitParts(1);
    stale.push_back(send(0, "second"));
    stale.push_back(send(0, "third"));
    send(1, "");
    send(2, "");
    gate->awaitParts(3); // these two overtake the third, which waits for the first
    auto sending = std::async(std::launch::async, [&] { return send(0, std::string(40, 'x')); }); // has no buffer
    gate->setOpen(true);
    const PartInfo last = sending.get();
    stale.push_back(send(1, "other part"));
    stale.back().Index = 0;
    for (const PartInfo& part : stale)
    {
        EXPECT_THROW(complete({part}), UnknownErrorException) << part;
    }
    EXPECT_EQ(calls(Operation::UploadPart), 6U) << "the second, which had not started, should be dropped";
    complete({last});
    EXPECT_EQ(store->get("k"), std::string(40, 'x'));
}

TEST_F(PipelinedUploadClientTest, AbortDropsWhatHasNotStartedAndWaitsForTheRest)
{
    open(2, 50);
    gate->setOpen(false);
    PartInfo last;
    for (std::size_t i = 0; i < 5; ++i)
    {
        last = send(i, "some bytes");
    }
    gate->awaitParts(2);
    faults->inject({.operation = Operation::UploadPart, .call = 1}); // of the two in flight
    faults->inject({.operation = Operation::AbortMultipartUpload, .call = 1});
    const std::string aborted = std::exchange(upload, client->createMultipartUpload("k", ""));
    auto aborting = std::async(std::launch::async, [&] { client->abortMultipartUpload("k", aborted); });
    const PartInfo part = send(9, "new bytes"); // gets a buffer when three parts were dropped
    gate->setOpen(true);
    EXPECT_THROW(aborting.get(), UnknownErrorException);
    EXPECT_THROW(client->completeMultipartUpload("k", aborted, {last}), UnknownErrorException);
    complete({part});
    EXPECT_EQ(store->get("k"), "new bytes");
    EXPECT_EQ(calls(Operation::UploadPart), 3U);

    upload = client->createMultipartUpload("k", "");
    await(send(1, std::string(50, 'x')));
    EXPECT_FALSE(wasSentHere(1)) << "all buffers should be free";
    store->abortMultipartUpload("k", upload);
    EXPECT_THROW(client->abortMultipartUpload("k", upload), ResourceNotFoundException);
    const std::uint64_t aborts = calls(Operation::AbortMultipartUpload);
    client.reset();
    EXPECT_EQ(calls(Operation::AbortMultipartUpload), aborts + 1) << "the abort that failed should be retried";
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
    const auto outage = std::make_exception_ptr(TransientException("Busy"));
    for (const Operation failing : {Operation::UploadPart, Operation::CopyPart})
    {
        store->put("k", "old");
        open(4);
        const auto transfer = [&](std::size_t index) {
            return failing == Operation::UploadPart ? send(index, "new") : copy({index, 0, 3, storedTag()});
        };
        faults->inject({.operation = failing, .failure = outage});
        std::vector<PartInfo> parts{transfer(0)};
        await(parts[0]);
        EXPECT_THROW(transfer(1), TransientException);
        parts.push_back(transfer(1));
        for (std::size_t index = 2; index < 4; ++index)
        {
            EXPECT_THROW(complete(parts), TransientException);
            EXPECT_EQ(store->get("k"), "old");
            EXPECT_NO_THROW(parts.push_back(transfer(index))) << "the completion has reported the failure";
        }
        await(parts.back());
        faults->clearFaults();
        EXPECT_THROW(transfer(1), TransientException);
        parts[1] = transfer(1);
        complete(parts);
        EXPECT_EQ(store->get("k"), failing == Operation::UploadPart ? "newnewnewnew" : "oldoldoldold");
    }
}

TEST_F(PipelinedUploadClientTest, SendsOnTheCallersThreadWhileFailedPartsFillTheBuffers)
{
    open(4, 20);
    faults->inject({.operation = Operation::UploadPart});
    std::vector<PartInfo> parts;
    for (std::size_t i = 0; i < 2; ++i)
    {
        parts.push_back(send(i, "some bytes"));
        await(parts[i]);
        EXPECT_THROW(send(i, "not taken"), UnknownErrorException);
    }
    EXPECT_THROW(send(2, "last bytes"), UnknownErrorException) << "this is its own failure";
    EXPECT_TRUE(wasSentHere(2));
    faults->clearFaults();
    parts[0] = send(0, "some bytes");
    EXPECT_TRUE(wasSentHere(0));
    parts.push_back(send(2, "last bytes"));
    complete(parts);
    EXPECT_FALSE(wasSentHere(2)) << "there is a buffer again";
    EXPECT_EQ(store->get("k"), "some bytessome byteslast bytes");
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

using Ranges = std::vector<std::uint64_t>; // by number

Ranges upTo(std::uint64_t end)
{
    Ranges ranges(end);
    std::iota(ranges.begin(), ranges.end(), 0);
    return ranges;
}

class ReadAheadClientTest : public BackgroundTransferTest
{
protected:
    ReadAheadClientTest() { decorate(); }
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
        std::ostringstream out;
        client->getObjectRange(key, out, range * size, (range + ranges) * size - 1);
        return out.str();
    }

    /// Read ranges of version 1.
    void readOld(const Ranges& ranges, const std::string& key = "k")
    {
        for (const std::uint64_t range : ranges)
        {
            EXPECT_EQ(read(range, key), version(1).substr(range * size, size)) << "range " << range;
        }
    }

    void put(const std::string& content, const std::string& key = "k")
    {
        std::istringstream bytes(content);
        client->putObject(key, bytes, content.size());
    }

    std::unique_ptr<ReadAheadClient> client;
};

TEST_F(ReadAheadClientTest, FetchesEveryByteOnce)
{
    for (const ReadAheadSettings settings : {ReadAheadSettings{1, 100 * size}, {1, 0}, {0, 100 * size}})
    {
        decorate(settings);
        readOld(upTo(40));
        const bool prefetches = settings.transfers * settings.memory != 0;
        EXPECT_EQ(gate->ranges("k").size(), prefetches ? 10 : 40); // 5 single ones, then of 2, 4, 8, 16 and the 5 left
        EXPECT_EQ(gate->rangeBytes, 40 * size);
    }
    EXPECT_EQ(findInterface<StoreCounters>(*client), counted.get());

    decorate();
    readOld({0, 1, 2});
    gate->ranges("k", 5); // 3 and 4 are prefetched
    EXPECT_EQ(read(3, "k", 10), version(1).substr(3 * size, 10 * size));
    EXPECT_EQ(gate->rangeBytes, 13 * size);
}

TEST_F(ReadAheadClientTest, ReadersInStepShareWhatIsPrefetched)
{
    gate->setOpen(false);
    readOld({0, 0, 1, 1});
    gate->ranges("k", 5);
    std::thread reader([this] { readOld({2}); });
    std::thread release([this] { gate->setOpen(true); });
    readOld({2});
    reader.join();
    release.join();
    client->getObjectParts("k"); // changes nothing
    for (std::uint64_t range = 3; range < 40; ++range)
    {
        readOld({range, range});
    }
    EXPECT_EQ(gate->rangeBytes, 42 * size) << "only the first two ranges should be fetched twice";
}

TEST_F(ReadAheadClientTest, FetchesOnlyWhatIsPredictedAndSurelyThere)
{
    const struct
    {
        const char* name;
        Ranges ranges; // that are read, the same that the store is asked for
        std::function<void(const std::string& key)> before = {};
    } rows[] = {
        {"random", {20, 5, 30, 1, 10, 21, 33}},
        {"end", {37, 38, 39}},
        {"unknown size", {0, 1, 2},
            [&](const std::string& key) { client->deleteObject(key), store->put(key, version(1)); }},
        {"size before a write", {0, 1, 2},
            [&](const std::string& key)
            {
                faults->setHook([&](Operation operation, const std::string&)
                    { operation == Operation::GetObjectParts ? put(version(1), key) : void(); });
                client->getObjectParts(key);
                faults->setHook({});
            }},
        {"forgotten size", {0, 1, 2},
            [&](const std::string& key)
            {
                for (int i = 0; i < 256; ++i)
                {
                    open(key + std::to_string(i));
                }
            }},
    };
    for (const auto& row : rows)
    {
        SCOPED_TRACE(row.name);
        open(row.name);
        row.before ? row.before(row.name) : void();
        readOld(row.ranges, row.name);
        std::ostringstream out;
        client->getObjectRange(row.name, out, 3, 2);
        EXPECT_THROW(client->getObjectRange(row.name, out, 39 * size, 40 * size), UnknownErrorException);
        EXPECT_THROW(client->getObjectRange(row.name, out, 0, UINT64_MAX), UnknownErrorException);

        const std::string last = std::string(row.name) + "/last"; // the thread fetches it after everything else
        open(last);
        readOld({0, 1}, last);
        gate->ranges(last, 3);
        Ranges expected = row.ranges;
        expected.insert(expected.end(), {3 / size, 39, 0});
        EXPECT_EQ(gate->ranges(row.name), expected);
    }
}

TEST_F(ReadAheadClientTest, ChangesDropWhatWasFetched)
{
    const std::string changed = version(2);
    const auto putWhileReading = [&]
    {
        faults->setHook(
            [&](Operation operation, const std::string&)
            {
                if (operation == Operation::PutObject)
                {
                    client->getObjectParts("k");
                    readOld(upTo(7));
                    EXPECT_THAT(gate->ranges("k"), Contains(6)) << "nothing should be prefetched during a write";
                }
            });
        put(changed);
        faults->setHook({});
    };
    const auto upload = [&]
    {
        const std::string id = client->createMultipartUpload("k", "");
        std::istringstream bytes(changed);
        PartInfo part{0, 0, changed.size(), ""};
        part.Tag = client->uploadPart("k", id, part, bytes);
        client->completeMultipartUpload("k", id, {part});
    };
    const std::pair<const char*, std::function<void()>> rows[] = {
        {"put", [&] { put(changed); }},
        {"put while it is read", putWhileReading},
        {"upload", upload},
        {"deletion", [&] { client->deleteObject("k"), store->put("k", changed); }},
        {"other tags", [&] { store->put("k", changed), client->getObjectParts("k"); }},
    };
    for (const auto& [name, change] : rows)
    {
        SCOPED_TRACE(name);
        decorate();
        gate->setOpen(false);
        readOld({0, 1});
        gate->ranges("k", 3); // the old range 2 is in flight
        change();
        EXPECT_EQ(read(2), changed.substr(2 * size, size));
        gate->setOpen(true);

        open("k");
        readOld(upTo(6)); // 5 and 6 came in one
        change();
        EXPECT_EQ(read(6), changed.substr(6 * size, size));
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
    EXPECT_EQ(gate->rangeBytes, (12 * 2 + 8) * size) << "there is memory for 8 ranges";
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

TEST_F(ReadAheadClientTest, AFailureClosesTheWindow)
{
    faults->setHook([reader = std::this_thread::get_id()](Operation, const std::string&)
        { std::this_thread::get_id() != reader ? throw UnknownErrorException("Lost") : void(); });
    readOld({0, 1});
    gate->ranges("k", 3);
    readOld({2});
    open("last");
    readOld({0, 1}, "last");
    gate->ranges("last", 3);
    EXPECT_THAT(gate->ranges("k"), Not(Contains(4)));

    faults->setHook({});
    faults->setDownloadLimit(size - 1);
    open("short");
    for (const std::uint64_t range : upTo(10))
    {
        EXPECT_EQ(read(range, "short").size(), size - 1) << "bytes that were not received should not be delivered";
    }
}

TEST_F(ReadAheadClientTest, ReadersSeeOneVersionThatWasThere)
{
    decorate({.transfers = 3, .memory = 30 * size});
    std::mutex writing;
    std::atomic<std::uint32_t> begun = 1;
    std::atomic<std::uint32_t> done = 1;
    const auto write = [&]
    {
        const std::lock_guard lock(writing);
        put(version(++begun));
        done.store(begun);
    };
    const auto readAndWrite = [&](unsigned seed)
    {
        std::mt19937 random(seed);
        for (int round = 0; round < 500; ++round)
        {
            random() % 8 == 0 ? write() : void(client->getObjectParts("k"));
            const std::uint64_t ranges = 1 + random() % 3;
            for (std::uint64_t at = random() % 40; at + ranges <= 40 && random() % 8 != 0; at += ranges)
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

TEST(ReadStreamsTest, OpensWindowsForSequentialReaders)
{
    const struct
    {
        const char* name;
        Ranges ranges;  // that are read
        Ranges windows; // after each, in ranges
    } rows[] = {
        {"doubles up to the limit", {0, 1, 2, 3, 4, 5, 6}, {0, 1, 2, 4, 8, 12, 12}},
        {"starts in the middle", {7, 8, 9, 10}, {0, 0, 1, 2}},
        {"random", {5, 1, 9, 3, 7, 0}, {0, 0, 0, 0, 0, 0}},
        {"backwards", {5, 4, 3, 2}, {0, 0, 0, 0}},
        {"chance", {50, 4, 30, 51, 2, 31, 5}, {0, 0, 0, 0, 0, 0, 0}},
        {"two readers", {0, 50, 1, 51, 2, 52, 53, 3}, {0, 0, 1, 0, 2, 1, 2, 4}},
        {"readers in step", {0, 0, 1, 1, 2, 2}, {0, 0, 1, 1, 2, 2}},
        {"jump into the window", {0, 1, 2, 3, 5, 6, 7, 8}, {0, 1, 2, 4, 0, 0, 1, 2}},
        {"one access elsewhere", {0, 1, 2, 20, 3}, {0, 1, 2, 0, 4}},
        {"many accesses elsewhere", {0, 1, 2, 11, 22, 33, 44, 55, 66, 77, 88, 3}, {0, 1, 2, 0, 0, 0, 0, 0, 0, 0, 0, 0}},
    };
    for (const auto& row : rows)
    {
        SCOPED_TRACE(row.name);
        ReadStreams streams;
        Ranges windows;
        for (const std::uint64_t range : row.ranges)
        {
            const auto ahead = streams.advance({range * size, size}, windows.size() + 1, 12 * size + 1, 3 * size + 1);
            windows.push_back(ahead.size / size);
            const std::uint64_t piece = std::clamp<std::uint64_t>(windows.back() / 2, 1, 3);
            EXPECT_EQ(ahead, (ReadStreams::Ahead{(range + 1) * size, windows.back() * size, piece * size}));
            EXPECT_EQ(streams.wants({ahead.offset, 1}), ahead.size != 0);
        }
        EXPECT_EQ(windows, row.windows);
    }
}

} // namespace

} // namespace storage::clients
