#include "Gateway.hpp"
#include "FaultProxy.hpp"

#include "protocol/Requester.hpp"
#include "protocol/Responses.hpp"

#include <storage/clients/testing/CloudClientConformance.hpp>
#include <storage/cloudprovider/CloudExceptions.hpp>

#include <sstream>

// The client against a real gateway, where nothing fails.

namespace storage::clients::s3::test
{

namespace
{

using namespace cloudprovider;

/// Uses virtual hosts; all other tests have the bucket in the path.
class S3Harness : public conformance::Harness
{
public:
    S3Harness()
        : m_settings(m_bucket.settings())
    {
        m_settings.pathStyle = false;
        m_settings.endpoint.replace(m_settings.endpoint.find("127.0.0.1"), 9, "localhost");
        m_client = openAnother();
    }

    CloudClient& client() override { return *m_client; }
    CloudClientSharedPtr openAnother() override { return std::make_shared<S3Client>(m_settings); }

    conformance::Capabilities capabilities() const override
    {
        return {5 << 20, "", "", "an object is cut by rule", "this gateway wants every part listed",
            "the store hears of an upload with its first part"};
    }

private:
    const GatewayBucket m_bucket;
    S3Settings m_settings;
    CloudClientSharedPtr m_client;
};

CLOUD_CLIENT_CONFORMANCE(S3,
    []() -> std::unique_ptr<conformance::Harness>
    {
        return GatewayBucket::isAvailable() ? std::make_unique<S3Harness>() : nullptr; // null: the case is skipped
    });

TEST(GatewayTest, HasNoneOfTheCapabilities)
{
    REQUIRE_GATEWAY();
    const GatewayBucket bucket;
    Requester requester(bucket.settings());
    const std::string otherTag = "\"00000000000000000000000000000000\"";
    const std::string source = "/" + bucket.settings().bucket + "/k";
    const auto send = [&](Operation operation, const std::string& method, const QueryParameters& query,
                          const std::vector<HttpHeaders::Field>& fields, const std::string& text)
    {
        TextBody body(text);
        S3Request request{operation, "key", method, query};
        for (const auto& field : fields)
        {
            request.headers.add(field.name, field.value);
        }
        request.body = text.empty() ? nullptr : &body;
        return requester.send(request, {404, 412});
    };
    send(Operation::PutObject, "PUT", {}, {}, "content");
    const std::string upload =
        readNewUpload(send(Operation::CreateMultipartUpload, "POST", {{"uploads", ""}}, {}, "").body);
    const QueryParameters part{{"partNumber", "1"}, {"uploadId", upload}};
    const auto copyStatus = [&](const std::vector<HttpHeaders::Field>& fields)
    { return send(Operation::CopyPart, "PUT", part, fields, "").status; };
    const bool conditionalCopies =
        copyStatus({{"x-amz-copy-source", source + "ey"}, {"x-amz-copy-source-if-match", otherTag}}) == 412;
    const bool copiesAnyKey = copyStatus({{"x-amz-copy-source", source + "%2565y"}}) == 404; // decoded twice: the key
    const auto sent = send(Operation::UploadPart, "PUT", part, {}, "part");
    const bool conditionalCompletion =
        send(Operation::CompleteMultipartUpload, "POST", {{"uploadId", upload}}, {{"If-Match", otherTag}},
            writeCompletion({{1, unquotedTag(*sent.headers.find("ETag"))}}))
            .status == 412;
    EXPECT_EQ(
        (EndpointCapabilities{conditionalCopies, conditionalCompletion, copiesAnyKey}), bucket.settings().capabilities);
}

TEST(GatewayTest, SendsASmallObjectWithItsParts)
{
    REQUIRE_GATEWAY();
    const GatewayBucket bucket;
    clients::test::FaultProxy proxy(bucket.settings().endpoint);
    S3Client client(bucket.settingsThrough(proxy.url()));
    S3Client other(bucket.settings());
    const auto put = [](CloudClient& writer, const std::string& bytes)
    {
        std::istringstream content(bytes);
        writer.putObject("key", content, bytes.size());
    };
    const auto read = [&](std::uint64_t last)
    {
        std::ostringstream out;
        client.getObjectRange("key", out, 0, last);
        return out.str();
    };
    for (const auto& [size, requests] : {std::pair(1U, 1U), {15U << 10U, 1U}, {16U << 10U, 1U}, {(16U << 10U) + 1, 2U}})
    {
        put(other, std::string(size, 'a'));
        proxy.setPlan({});
        client.getObjectParts("key");
        EXPECT_EQ(read(size - 1), std::string(size, 'a'));
        EXPECT_EQ(proxy.seen().size(), requests) << size << " bytes";
    }
    // Delivered once, as it was when it was opened, and never in place of what this client has written since.
    put(client, "mine");
    client.getObjectParts("key");
    put(other, "theirs");
    EXPECT_EQ(read(0), "mine");
    EXPECT_THROW(read(0), CloudException);
    client.getObjectParts("key");
    put(client, "mine again");
    EXPECT_EQ(read(0), "mine again");
}

} // namespace

} // namespace storage::clients::s3::test
