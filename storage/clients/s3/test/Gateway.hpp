#pragma once

#include <storage/clients/s3/S3Client.hpp>

#include <optional>
#include <string>

namespace storage::clients::s3::test
{

/// A bucket of its own in the gateway that the environment names, as scripts/gateway.sh sets it up.
class GatewayBucket
{
public:
    /// Whether there is a gateway. Tests that need one skip themselves without.
    static bool isAvailable();

    /// How to reach the gateway, with the bucket that all tests share.
    static S3Settings gatewaySettings();

    /// Create the bucket.
    GatewayBucket();
    GatewayBucket(const GatewayBucket&) = delete;
    GatewayBucket& operator=(const GatewayBucket&) = delete;

    /// Remove it with all its objects and uploads.
    ~GatewayBucket();

    const S3Settings& settings() const noexcept { return m_settings; }

    /// The same bucket, reached through a proxy.
    S3Settings settingsThrough(const std::string& endpoint) const
    {
        S3Settings settings = m_settings;
        settings.endpoint = endpoint;
        return settings;
    }

private:
    S3Settings m_settings;
};

/// Store an object.
void put(cloudprovider::CloudClient& client, const std::string& key, const std::string& content);

/// @return the whole object; nothing when there is none
std::optional<std::string> get(cloudprovider::CloudClient& client, const std::string& key);

} // namespace storage::clients::s3::test

/// For the beginning of a test.
#define REQUIRE_GATEWAY()                                                                                              \
    if (!::storage::clients::s3::test::GatewayBucket::isAvailable())                                                   \
    GTEST_SKIP() << "there is no gateway; scripts/test.sh brings one"
