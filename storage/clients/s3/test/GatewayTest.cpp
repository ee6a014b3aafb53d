#include "TestCalls.hpp"

#include "protocol/Requester.hpp"

#include <storage/clients/s3/S3Client.hpp>
#include <storage/clients/testing/CloudClientConformance.hpp>

#include <gtest/gtest.h>

#include <atomic>
#include <cstdlib>
#include <string_view>

#include <unistd.h>

// The client against a real gateway: what every store must do.

namespace storage::clients::s3::test
{

namespace
{

using namespace cloudprovider;

/// A bucket of its own in the gateway that the environment names, as scripts/gateway.sh sets it up.
class GatewayBucket
{
public:
    GatewayBucket() { Requester(settings).send({Operation::PutObject, "", "PUT"}); }
    GatewayBucket(const GatewayBucket&) = delete;
    GatewayBucket& operator=(const GatewayBucket&) = delete;

    /// Remove the bucket with all its objects and uploads.
    ~GatewayBucket()
    {
        EXPECT_NO_THROW({
            S3Client client(settings);
            for (const std::string& key : conformance::keys(client))
            {
                client.deleteObject(key);
            }
            for (const PendingUpload& upload : client.pendingUploads())
            {
                client.abortMultipartUpload(upload.key, upload.uploadId);
            }
            Requester(settings).send({Operation::DeleteObject, "", "DELETE"});
        });
    }

    /// Null: there is no gateway.
    static const char* endpoint() { return std::getenv("CLOUDFS_TEST_S3_ENDPOINT"); }

    static inline std::atomic<unsigned> count = 0;
    const S3Settings settings = parseS3Url("s3://test-" + std::to_string(::getpid()) + "-" + std::to_string(++count) +
                                           "?path-style=1&endpoint=" + endpoint());
};

/// Uses virtual hosts; all other tests have the bucket in the path.
class S3Harness : public conformance::Harness
{
public:
    CloudClient& client() override { return *m_client; }

    CloudClientSharedPtr openAnother() override { return makeClient(); }

    CloudClientSharedPtr openReadOnly() override
    {
        S3Settings settings = m_bucket.settings;
        settings.bucket += "-missing";
        return std::make_shared<S3Client>(settings);
    }

    conformance::Capabilities capabilities() const override
    {
        // What the known server lacks. The tests excuse nothing else.
        const char* const server = std::getenv("CLOUDFS_TEST_S3_SERVER");
        const bool wantsEveryPart = server != nullptr && std::string_view(server) == "ceph";
        return {5 << 20, "", "", "an object is cut by rule",
            wantsEveryPart ? "this gateway wants every part listed" : "",
            "the store hears of an upload with its first part", ""};
    }

private:
    CloudClientSharedPtr makeClient() const
    {
        S3Settings settings = m_bucket.settings;
        settings.pathStyle = false;
        settings.endpoint.replace(settings.endpoint.find("127.0.0.1"), 9, "localhost");
        return std::make_shared<S3Client>(settings);
    }

    const GatewayBucket m_bucket;
    const CloudClientSharedPtr m_client = makeClient();
};

CLOUD_CLIENT_CONFORMANCE(S3,
    []() -> std::unique_ptr<conformance::Harness>
    {
        return GatewayBucket::endpoint() != nullptr ? std::make_unique<S3Harness>()
                                                    : nullptr; // null: the case is skipped
    });

} // namespace

} // namespace storage::clients::s3::test
