#include "CacheFolder.hpp"
#include "MemoryRemoteStore.hpp"

#include <storage/clients/cache/CachingClient.hpp>
#include <storage/clients/remote/RemoteClient.hpp>
#include <storage/clients/testing/CloudClientConformance.hpp>
#include <storage/cloudprovider/CloudExceptions.hpp>

#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <memory>
#include <random>
#include <string>
#include <thread>
#include <vector>

namespace storage::clients
{

namespace
{

using cloudprovider::CloudClientSharedPtr;
using test::MemoryBucket;

/// Clients of one bucket and one cache with tiny blocks.
class CacheHarness : public conformance::Harness
{
public:
    explicit CacheHarness(const RangeCacheSettings& settings = {{}, 1 << 20, 64}, std::uint64_t partSize = 1'100,
        std::uint64_t memory = 64 << 20)
        : m_cache(RangeCache::open({m_folder.path, settings.maxSize, settings.blockSize}))
        , m_settings{.memory = memory, .partSize = partSize}
    {
    }

    cloudprovider::CloudClient& client() override { return *m_client; }
    CloudClientSharedPtr openAnother() override { return connect(); }

    conformance::Capabilities capabilities() const override
    {
        return {m_bucket->abilities.minPartSize, "", "", "an object is cut by rule", "",
            "the store hears of an upload with its first part", ""};
    }

    MemoryBucket& bucket() { return *m_bucket; }
    void removeFolder() { std::filesystem::remove_all(m_folder.path); }
    void close() { m_client.reset(); }

private:
    CloudClientSharedPtr connect() const
    {
        return std::make_shared<CachingClient>(
            std::make_shared<RemoteClient>(m_bucket->connect(), m_settings), m_cache, "bucket");
    }

    const test::CacheFolder m_folder{};
    const std::shared_ptr<RangeCache> m_cache;
    const RemoteSettings m_settings;
    const std::shared_ptr<MemoryBucket> m_bucket = std::make_shared<MemoryBucket>();
    CloudClientSharedPtr m_client = connect();
};

CLOUD_CLIENT_CONFORMANCE(Cache, [] { return std::make_unique<CacheHarness>(); });

TEST(CachingClientTest, RequestsOnceWhatItReadsOfAVersionAndNeverDeliversAnother)
{
    CacheHarness harness;
    const auto other = harness.openAnother();
    const auto old = std::string(20'000, 'o') + std::string(20'000, 'p');
    conformance::put(*other, "k", old);
    harness.client().getObjectParts("k");
    EXPECT_EQ(conformance::get(harness.client(), "k", 19'990, 20'009), old.substr(19'990, 20));
    harness.bucket().takeRequests();
    EXPECT_EQ(conformance::get(harness.client(), "k", 19'970, 20'030), old.substr(19'970, 61));
    EXPECT_EQ(conformance::get(*other, "k", 19'970, 20'030), old.substr(19'970, 61)) << "which has written it";
    EXPECT_EQ(harness.bucket().count("getObject"), 0);
    conformance::put(*other, "k", std::string(40'000, 'n'));
    EXPECT_EQ(conformance::get(harness.client(), "k", 19'990, 20'009), old.substr(19'990, 20)) << "as it was opened";
    EXPECT_THROW(conformance::get(harness.client(), "k", 30'000, 30'099), cloudprovider::UnknownErrorException);
    harness.client().getObjectParts("k");
    EXPECT_EQ(conformance::get(harness.client(), "k", 19'990, 20'009), std::string(20, 'n'));
    harness.client().deleteObject("k");
    EXPECT_THROW(conformance::get(harness.client(), "k", 19'990, 20'009), cloudprovider::CloudException);
}

// Four threads read pieces of an object at random, or one in order, from a store that takes 10 ms for each.
TEST(CachingClientTest, FetchesTheRestForReadersWhoHaveWaitedForLong)
{
    constexpr std::uint64_t size = 12 << 20;
    constexpr std::uint64_t piece = 64 << 10;
    const struct
    {
        std::uint64_t cacheSize;
        std::size_t reads;
        bool areInOrder = false, isFetched = false;
        bool stop = false, isReplaced = false; // once it is being fetched
        std::uint64_t memory = 64 << 20;
        bool reopen = false; // before each read
        bool isDenied = false, isReadOnly = false;
    } rows[] = {{64 << 20, 3}, {20 << 20, 40}, {64 << 20, 40, true}, {64 << 20, 40, true, true, false, false, 100'000},
        {64 << 20, 40, false, true}, {64 << 20, 40, false, true, false, false, 64 << 20, true},
        {64 << 20, 40, false, true, true}, {64 << 20, 40, false, true, true, true},
        {64 << 20, 40, false, true, false, false, 64 << 20, false, true},
        {64 << 20, 40, false, false, false, false, 64 << 20, false, false, true}};
    const test::Fault denied{
        test::Fault::How::Before, std::make_exception_ptr(cloudprovider::PermissionDeniedException("Denied"))};
    std::string old(size, '\0');
    std::ranges::generate(old, [next = std::minstd_rand()]() mutable { return static_cast<char>(next()); });
    for (const auto& row : rows)
    {
        SCOPED_TRACE(&row - rows);
        CacheHarness harness({{}, row.cacheSize, piece}, 256 << 10, row.memory);
        harness.bucket().put("k", old);
        harness.client().getObjectParts("k");
        row.isReadOnly ? harness.removeFolder() : void();
        std::atomic<std::uint64_t> requested = 0;
        std::atomic<bool> isFetched = false;
        harness.bucket().faults = [&](const test::StoreRequest& request)
        {
            requested += request.range.size;
            std::this_thread::sleep_for(std::chrono::milliseconds(10));
            const bool isRest = request.range.offset == 8 << 20 && request.range.size == 4 << 20;
            const bool isFirst = isRest && !isFetched.exchange(true);
            if (isFirst && row.stop) // until the client is being closed
            {
                std::this_thread::sleep_for(std::chrono::milliseconds(300));
            }
            if (isFirst && row.isReplaced)
            {
                harness.bucket().put("k", std::string(size, 'n'));
            }
            const bool isRefused = row.isDenied && request.range.size > 1 << 20;
            return isRefused ? std::optional(denied) : std::nullopt;
        };
        std::vector<std::jthread> readers;
        for (std::size_t reader = 0; reader < (row.areInOrder ? 1 : 4); ++reader)
        {
            readers.emplace_back(
                [&, reader]
                {
                    for (std::size_t i = 0; i < row.reads && !(row.stop && isFetched); ++i)
                    {
                        const std::size_t at = row.areInOrder ? i : (reader * 48 + i * 7) % 192;
                        try
                        {
                            row.reopen ? void(harness.client().getObjectParts("k")) : void();
                            EXPECT_EQ(conformance::get(harness.client(), "k", at * piece, (at + 1) * piece - 1),
                                old.substr(at * piece, piece));
                        }
                        catch (const cloudprovider::CloudException&)
                        {
                            EXPECT_TRUE(row.isReplaced);
                        }
                    }
                });
        }
        readers.clear();
        harness.close();
        if (row.stop && !row.isReplaced)
        {
            const auto other = harness.openAnother();
            other->getObjectParts("k");
            harness.bucket().takeRequests();
            conformance::get(*other, "k", 190 * piece, 190 * piece + 99); // no reader came so far
            EXPECT_EQ(harness.bucket().count("getObject"), 1) << "which was given up";
        }
        EXPECT_EQ(isFetched, row.isFetched);
        const std::uint64_t rest = row.isDenied ? 4 << 20 : size; // at most one trial
        EXPECT_LE(requested, rest + 4 * row.reads * (piece + (row.reopen ? 16 << 10 : 0)));
    }
}

} // namespace

} // namespace storage::clients
