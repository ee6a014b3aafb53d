#include "WatchedClient.hpp"
#include "awaitThreads.hpp"

#include <storage/clients/decorators/CountingClient.hpp>
#include <storage/clients/decorators/FaultyClient.hpp>
#include <storage/clients/decorators/FindInterface.hpp>
#include <storage/clients/decorators/ReadAheadClient.hpp>
#include <storage/clients/memory/MemoryClient.hpp>
#include <storage/cloudprovider/CloudExceptions.hpp>
#include <storage/cloudprovider/CloudProvider.hpp>

#include <gmock/gmock.h>

#include <algorithm>
#include <atomic>
#include <functional>
#include <mutex>
#include <numeric>
#include <random>
#include <sstream>
#include <thread>

namespace storage::clients
{

namespace
{

using namespace cloudprovider;
using test::awaitThreads;
using namespace testing;
using foundation::storage::provider::StorageIRI;

constexpr std::uint64_t size = 16; // bytes of most ranges that are read

/// 40 ranges that tell the version and the place: one number each four bytes.
std::string version(std::uint32_t number)
{
    std::vector<std::uint32_t> words(40 * size / 4);
    std::iota(words.begin(), words.end(), number << 16U);
    return {reinterpret_cast<const char*>(words.data()), 40 * size};
}

class ReadAheadClientTest : public Test
{
protected:
    using Ranges = std::vector<std::uint64_t>;

    ReadAheadClientTest() { decorate({.transfers = 1, .memory = 100 * size}); }
    ~ReadAheadClientTest() override
    {
        client.reset();
        awaitThreads(1);
    }

    /// Begin anew, with "k" open.
    void decorate(const ReadAheadSettings& settings)
    {
        client.reset();
        watched = std::make_shared<WatchedClient>(counted, size);
        client = std::make_unique<ReadAheadClient>(watched, settings);
        open("k");
    }

    /// Store version 1 and let the client know how long it is.
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

    static void upload(CloudClient& target, const std::string& content)
    {
        const std::string id = target.createMultipartUpload("k", "");
        std::vector<PartInfo> parts;
        for (std::size_t i = 0; i < 20; ++i)
        {
            std::istringstream bytes(content.substr(i * 2 * size, 2 * size));
            parts.push_back({i, 0, 2 * size, ""});
            parts.back().Tag = target.uploadPart("k", id, parts.back(), bytes);
        }
        target.completeMultipartUpload("k", id, parts);
    }

    static Ranges upTo(std::uint64_t end)
    {
        Ranges ranges(end);
        std::iota(ranges.begin(), ranges.end(), 0);
        return ranges;
    }

    const std::shared_ptr<MemoryClient> store = std::make_shared<MemoryClient>();
    const std::shared_ptr<FaultyClient> faults = std::make_shared<FaultyClient>(store);
    const std::shared_ptr<CountingClient> counted = std::make_shared<CountingClient>(faults);
    std::shared_ptr<WatchedClient> watched;
    std::unique_ptr<ReadAheadClient> client;
};

TEST_F(ReadAheadClientTest, FetchesEveryByteOnce)
{
    for (const ReadAheadSettings settings : {ReadAheadSettings{1, 100 * size}, {1, 0}, {0, 100 * size}})
    {
        decorate(settings);
        readOld(upTo(40));
        const bool isAhead = settings.transfers * settings.memory != 0;
        EXPECT_EQ(watched->asked("k").size(), isAhead ? 10 : 40); // 5 single ones, then of 2, 4, 8, 16 and the 5 left
        EXPECT_EQ(watched->bytes(), 40 * size);
    }
    EXPECT_EQ(findInterface<StoreCounters>(*client), counted.get());
}

TEST_F(ReadAheadClientTest, FetchesTheRestOfALargeRange)
{
    readOld({0, 1, 2});
    watched->asked("k", 5); // 3 and 4 are on their way
    EXPECT_EQ(read(3, "k", 10), version(1).substr(3 * size, 10 * size));
    EXPECT_EQ(watched->bytes(), 13 * size);
}

TEST_F(ReadAheadClientTest, ReadersInStepShare)
{
    for (const std::uint64_t range : upTo(40))
    {
        readOld({range, range});
        client->getObjectParts("k"); // one more opens it
    }
    EXPECT_EQ(watched->bytes(), 42 * size) << "expected only what comes before the windows twice";
}

TEST_F(ReadAheadClientTest, WaitsForARangeThatIsOnItsWay)
{
    watched->hold(true);
    readOld({0, 0, 1, 1});
    watched->asked("k", 5);
    std::thread reader([this] { readOld({2}); });
    std::thread release([this] { watched->hold(false); });
    readOld({2});
    reader.join();
    release.join();
    EXPECT_THAT(watched->asked("k", 5), Contains(2).Times(1));
}

TEST_F(ReadAheadClientTest, FetchesNothingThatNobodyIsExpectedToAskFor)
{
    const struct
    {
        const char* name;
        Ranges ranges; // that are read, the same that the store is asked for
        std::function<void(const std::string& key)> before = {};
    } rows[] = {
        {"one in the middle", {20}},
        {"one at the begin", {0}},
        {"random ones", {20, 5, 30, 1, 10, 21, 33}},
        {"one look across two parts", {20, 21}},
        {"the last ones", {37, 38, 39}},
        {"unknown size", {0, 1, 2, 3},
            [&](const std::string& key) { client->deleteObject(key), store->put(key, version(1)); }},
        {"doubtful size", {0, 1, 2, 3},
            [&](const std::string& key)
            {
                faults->setHook([&](Operation operation, const std::string&)
                    { operation == Operation::GetObjectParts ? put(version(1), key) : void(); });
                client->getObjectParts(key);
                faults->setHook({});
            }},
        {"forgotten size", {0, 1, 2, 3},
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

        const std::string last = std::string(row.name) + "/last"; // the one thread comes to it after everything else
        open(last);
        readOld({0, 1}, last);
        watched->asked(last, 3);
        Ranges expected = row.ranges;
        expected.insert(expected.end(), {3 / size, 39, 0});
        EXPECT_EQ(watched->asked(row.name), expected);
    }
}

TEST_F(ReadAheadClientTest, ChangesDropWhatWasFetched)
{
    const std::string changed = version(2);
    const struct
    {
        const char* name;
        std::function<void()> change;
    } rows[] = {
        {"put", [&] { put(changed); }},
        {"put while it is read",
            [&]
            {
                faults->setHook(
                    [&](Operation operation, const std::string&)
                    {
                        if (operation == Operation::PutObject)
                        {
                            client->getObjectParts("k");
                            readOld(upTo(7));
                            EXPECT_THAT(watched->asked("k"), Contains(6)) << "expected nothing ahead in a write";
                        }
                    });
                put(changed);
                faults->setHook({});
            }},
        {"completion", [&] { upload(*client, changed); }},
        {"deletion", [&] { client->deleteObject("k"), store->put("k", changed); }},
        {"other tags", [&] { store->put("k", changed), client->getObjectParts("k"); }},
    };
    for (const auto& row : rows)
    {
        SCOPED_TRACE(row.name);
        decorate({.transfers = 1, .memory = 100 * size});
        watched->hold(true);
        readOld({0, 1});
        watched->asked("k", 3); // the old range 2 is on its way
        row.change();
        EXPECT_EQ(read(2), changed.substr(2 * size, size));
        watched->hold(false);

        open("k");
        readOld(upTo(6)); // 5 and 6 came in one
        row.change();
        EXPECT_EQ(read(6), changed.substr(6 * size, size));
    }
}

TEST_F(ReadAheadClientTest, StaysWithinItsMemoryAndTakesItFromTheIdle)
{
    const auto fill = [this](std::size_t transfers)
    {
        decorate({transfers, 8 * size});
        watched->hold(true);
        for (std::size_t i = 0; i < 12; ++i)
        {
            const std::string key = std::to_string(transfers) + "/" + std::to_string(i);
            open(key);
            readOld({0, 1}, key);
            watched->asked(key, i < std::min<std::size_t>(8, transfers) ? 3 : 2);
        }
    };
    fill(50);
    EXPECT_EQ(watched->bytes(), (12 * 2 + 8) * size) << "expected memory for 8 ranges ahead";
    watched->hold(false);

    fill(1);           // 1 range on its way, 7 in the queue
    readOld(upTo(39)); // the readers might come back,
    readOld(upTo(39)); // but do not
    open("other");
    readOld({0, 1}, "other");
    watched->hold(false);
    watched->asked("other", 3);
}

TEST_F(ReadAheadClientTest, DropsWhatAReaderLeftWhenOthersHaveReadOnForLong)
{
    open("left");
    readOld({0, 1, 2}, "left");
    watched->asked("left", 5); // 3 and 4 are on their way
    readOld(Ranges(100, 20));
    readOld({3}, "left");
    EXPECT_THAT(watched->asked("left"), Contains(3).Times(1)) << "expected some patience, as there is memory";
    readOld(Ranges(400, 20));
    readOld({4}, "left");
    EXPECT_THAT(watched->asked("left"), Contains(4).Times(2));
}

TEST_F(ReadAheadClientTest, AFailureClosesTheWindow)
{
    faults->setHook([reader = std::this_thread::get_id()](Operation, const std::string&)
        { std::this_thread::get_id() != reader ? throw UnknownErrorException("Lost") : void(); });
    readOld({0, 1});
    watched->asked("k", 3);
    readOld({2});
    open("last");
    readOld({0, 1}, "last");
    watched->asked("last", 3);
    EXPECT_THAT(watched->asked("k"), Not(Contains(4)));

    faults->setHook({});
    faults->setDownloadLimit(size - 1);
    open("short");
    for (const std::uint64_t range : upTo(10))
    {
        EXPECT_EQ(read(range, "short").size(), size - 1) << "expected no bytes that never came";
    }
}

TEST_F(ReadAheadClientTest, AFileIsReadRightOrNotAtAllWhateverFails)
{
    upload(*store, version(1));
    bool struck = true;
    for (std::uint64_t call = 1; struck; ++call)
    {
        const std::uint64_t before = counted->callSnapshot().totalCalls();
        faults->inject({.call = call});
        std::string bytes(40 * size, '\0');
        try
        {
            const auto decorated = std::make_shared<ReadAheadClient>(counted, ReadAheadSettings{2, 100 * size});
            const auto provider = buildCloudProvider(decorated, FolderPolicy::KeyPrefixes, false);
            const auto stream = provider->openReadOnlyStream(StorageIRI::fromUtf8("mem://test/k"));
            stream->read(bytes.data(), 40 * size);
            EXPECT_EQ(bytes, version(1)) << "call " << call;
        }
        catch (const std::exception& failure)
        {
            EXPECT_LE(call, 5U) << "expected only what the reader itself asks for to fail it: " << failure.what();
        }
        awaitThreads(1);
        struck = counted->callSnapshot().totalCalls() - before >= call;
        faults->clearFaults();
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

} // namespace

} // namespace storage::clients
