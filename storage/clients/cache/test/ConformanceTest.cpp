#include "CacheFolder.hpp"
#include "MemoryRemoteStore.hpp"

#include <storage/clients/cache/CachingClient.hpp>
#include <storage/clients/remote/RemoteClient.hpp>
#include <storage/clients/testing/CloudClientConformance.hpp>
#include <storage/cloudprovider/CloudExceptions.hpp>

#include <gtest/gtest.h>

#include <memory>
#include <string>

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
    cloudprovider::CloudClient& client() override { return *m_client; }
    CloudClientSharedPtr openAnother() override { return connect(); }

    conformance::Capabilities capabilities() const override
    {
        return {m_bucket->abilities.minPartSize, "", "", "an object is cut by rule", "",
            "the store hears of an upload with its first part", ""};
    }

    MemoryBucket& bucket() { return *m_bucket; }

private:
    CloudClientSharedPtr connect() const
    {
        return std::make_shared<CachingClient>(
            std::make_shared<RemoteClient>(m_bucket->connect(), RemoteSettings{.partSize = 1'100}), m_cache, "bucket");
    }

    const test::CacheFolder m_folder{};
    const std::shared_ptr<RangeCache> m_cache = RangeCache::open({m_folder.path, 1 << 20, 64});
    const std::shared_ptr<MemoryBucket> m_bucket = std::make_shared<MemoryBucket>();
    const CloudClientSharedPtr m_client = connect();
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

} // namespace

} // namespace storage::clients
