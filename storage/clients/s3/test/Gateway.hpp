#pragma once

#include <storage/clients/s3/S3Client.hpp>

#include <string>

namespace storage::clients::s3::test
{

/// The gateway that the tests were given, and a bucket in it that belongs to this test alone.
///
/// Its address and keys come from the environment, as scripts/gateway.sh tells them.
class GatewayBucket
{
public:
    /// Whether there is a gateway. Tests that need one skip themselves without.
    static bool isAvailable();

    /// Where the gateway is, with the bucket of everybody.
    static S3Settings gatewaySettings();

    /// Make a bucket.
    GatewayBucket();
    GatewayBucket(const GatewayBucket&) = delete;
    GatewayBucket& operator=(const GatewayBucket&) = delete;

    /// Remove it, with all objects and uploads in it.
    ~GatewayBucket();

    const S3Settings& settings() const noexcept { return m_settings; }

    /// The same, reached through what stands in front of the gateway.
    S3Settings settingsThrough(const std::string& endpoint) const
    {
        S3Settings settings = m_settings;
        settings.endpoint = endpoint;
        return settings;
    }

private:
    S3Settings m_settings;
};

} // namespace storage::clients::s3::test

/// For the beginning of a test.
#define REQUIRE_GATEWAY()                                                                                              \
    if (!::storage::clients::s3::test::GatewayBucket::isAvailable())                                                   \
    GTEST_SKIP() << "there is no gateway; scripts/test.sh brings one"
