#include "TestCalls.hpp"

#include "protocol/Requester.hpp"

#include <storage/clients/s3/S3Client.hpp>
#include <storage/clients/testing/ClientCalls.hpp>
#include <storage/clients/testing/CloudClientConformance.hpp>

#include <gmock/gmock.h>

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

/// Whether the server is Ceph's, as scripts/gateway.sh says. It decides which known faults a test excuses.
bool isCeph()
{
    const char* const server = std::getenv("CLOUDFS_TEST_S3_SERVER");
    return server != nullptr && std::string_view(server) == "ceph";
}

/// Uses virtual hosts and a prefix of the bucket; all other tests have the bucket in the path, and as root.
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
        conformance::Capabilities result;
        result.minPartSize = 5 << 20;
        result.noPartBoundaries = "an object is cut by rule";
        result.noUnlistedParts = isCeph() ? "this gateway wants every part listed" : "";
        result.noSharedUploads = "the store hears of an upload with its first part";
        result.maxKeyBytes -= prefix.size();
        return result;
    }

private:
    static inline const std::string prefix = "a +/\xC3\xA4/";

    CloudClientSharedPtr makeClient() const
    {
        S3Settings settings = m_bucket.settings;
        settings.prefix = prefix;
        settings.pathStyle = false;
        settings.endpoint.replace(settings.endpoint.find("127.0.0.1"), 9, "localhost");
        return std::make_shared<S3Client>(settings);
    }

    const GatewayBucket m_bucket;
    const CloudClientSharedPtr m_client = makeClient();
};

TEST(GatewayTest, AChangedFileKeepsItsMetadata)
{
    if (GatewayBucket::endpoint() == nullptr)
    {
        GTEST_SKIP() << "there is no gateway";
    }
    const GatewayBucket bucket;
    S3Store store(bucket.settings);
    S3Client client(bucket.settings);
    const auto metadata = [&] { return *store.findObject("a.html")->version.metadata; };
    ObjectMetadata fields{{"Content-Type", "text/x-test"}, {"Cache-Control", "no-cache"}, {"Content-Encoding", "gzip"},
        {"Content-Disposition", "inline"}, {"Content-Language", "de"}, {"x-amz-meta-author", "a  b"}};
    isCeph() ? void(fields.emplace_back("x-amz-tagging", "a%20b=1&c=")) : void(); // the other server has no tags
    putObject(store, "a.html", "old", {}, fields);
    auto before = metadata();
    EXPECT_EQ(before.size(), fields.size());
    client.copyObject("a.html", "b");
    EXPECT_EQ(store.findObject("b")->version.metadata->size(), fields.size());
    client.deleteObject("b");
    const std::string tag = client.getObjectParts("a.html").at(0).Tag;
    conformance::put(client, "a.html", "put");
    EXPECT_EQ(metadata(), before);
    const std::string id = client.createMultipartUpload("a.html", tag);
    client.completeMultipartUpload("a.html", id, {conformance::uploadPart(client, "a.html", id, 0, "part")});
    std::erase_if(before, [](const auto& field) { return field.first == tagCountField; }); // Ceph ignores them here
    EXPECT_EQ(metadata(), before);
}

CLOUD_CLIENT_CONFORMANCE(S3,
    []() -> std::unique_ptr<conformance::Harness>
    {
        return GatewayBucket::endpoint() != nullptr ? std::make_unique<S3Harness>()
                                                    : nullptr; // null: the case is skipped
    });

} // namespace

} // namespace storage::clients::s3::test
