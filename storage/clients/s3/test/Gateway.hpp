#pragma once

#include "TestCalls.hpp"

#include "protocol/Requester.hpp"

#include <storage/clients/s3/S3Client.hpp>

#include <gtest/gtest.h>

#include <cstdlib>

#include <unistd.h>

namespace storage::clients::s3::test
{

/// A bucket of its own in the gateway that the environment names, as scripts/gateway.sh sets it up.
class GatewayBucket
{
public:
    /// Whether there is a gateway. Tests that need one skip themselves without.
    static bool isAvailable() { return std::getenv("CLOUDFS_TEST_S3_ENDPOINT") != nullptr; }

    /// How to reach the gateway, with the bucket that all tests share.
    static S3Settings gatewaySettings()
    {
        return parseS3Url(std::string("s3://") + std::getenv("CLOUDFS_TEST_S3_BUCKET") +
                          "?path-style=1&endpoint=" + std::getenv("CLOUDFS_TEST_S3_ENDPOINT"));
    }

    /// Create the bucket.
    GatewayBucket()
        : m_settings(gatewaySettings())
    {
        static std::atomic<unsigned> count = 0;
        m_settings.bucket = "test-" + std::to_string(::getpid()) + "-" + std::to_string(++count);
        Requester(m_settings).send({Operation::PutObject, "", "PUT"});
    }
    GatewayBucket(const GatewayBucket&) = delete;
    GatewayBucket& operator=(const GatewayBucket&) = delete;

    /// Remove it with all its objects and uploads.
    ~GatewayBucket()
    {
        const std::string failure = failureOf(
            [this]
            {
                S3Client client(m_settings);
                for (const std::string& key : conformance::keys(client))
                {
                    client.deleteObject(key);
                }
                for (const PendingUpload& upload : client.pendingUploads())
                {
                    client.abortMultipartUpload(upload.key, upload.uploadId);
                }
                Requester(m_settings).send({Operation::DeleteObject, "", "DELETE"});
            });
        EXPECT_EQ(failure, "");
    }

    const S3Settings& settings() const noexcept { return m_settings; }

    /// The same bucket, reached through a proxy, with fewer requests for a file than by default.
    S3Settings settingsThrough(const std::string& endpoint) const
    {
        S3Settings settings = m_settings;
        settings.endpoint = endpoint;
        settings.partSize = 1 << 20;
        return settings;
    }

private:
    S3Settings m_settings;
};

} // namespace storage::clients::s3::test

/// For the beginning of a test.
#define REQUIRE_GATEWAY()                                                                                              \
    if (!::storage::clients::s3::test::GatewayBucket::isAvailable())                                                   \
    GTEST_SKIP() << "there is no gateway; scripts/test.sh starts one"
