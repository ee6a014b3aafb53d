#include "Gateway.hpp"
#include "FaultProxy.hpp"

#include "protocol/Requester.hpp"
#include "protocol/Responses.hpp"

#include <storage/clients/common/TransientException.hpp>
#include <storage/clients/testing/CloudClientConformance.hpp>
#include <storage/cloudprovider/CloudExceptions.hpp>

#include <gmock/gmock.h>

#include <algorithm>
#include <sstream>
#include <thread>

// The client against a real gateway: what every store must do, what this one can do, and what happens when requests
// to it fail.

namespace storage::clients::s3::test
{

namespace
{

using namespace cloudprovider;
using namespace clients::test;
namespace http = boost::beast::http;

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

/// Send a request about the object "key", of whatever status.
HttpResponse send(Requester& requester, const std::string& method, const QueryParameters& query,
    const std::vector<HttpHeaders::Field>& fields, const std::string& text)
{
    TextBody body(text);
    S3Request request{Operation::PutObject, "key", method, query};
    for (const auto& [name, value] : fields)
    {
        request.headers.add(name, value);
    }
    request.body = text.empty() ? nullptr : &body;
    return requester.send(request, {404, 412});
}

TEST(GatewayTest, HasTheCapabilitiesThatOtherTestsTakeItFor)
{
    REQUIRE_GATEWAY();
    const GatewayBucket bucket;
    Requester requester(bucket.settings());
    const std::string otherTag = "\"00000000000000000000000000000000\"";
    const std::string source = "/" + bucket.settings().bucket + "/k";
    send(requester, "PUT", {}, {}, "content");
    const std::string upload = readNewUpload(send(requester, "POST", {{"uploads", ""}}, {}, "").body);
    const QueryParameters part{{"partNumber", "1"}, {"uploadId", upload}};
    const std::string tag = *send(requester, "PUT", part, {}, "part").headers.find("ETag");
    EndpointCapabilities found;
    found.conditionalCopies = send(requester, "PUT", part,
                                  {{"x-amz-copy-source", source + "ey"}, {"x-amz-copy-source-if-match", otherTag}}, "")
                                  .status == 412;
    found.copiesAnyKey = send(requester, "PUT", part, {{"x-amz-copy-source", source + "%2565y"}}, "").status == 404;
    send(requester, "PUT", part, {}, "part");
    found.conditionalCompletion = send(requester, "POST", {{"uploadId", upload}}, {{"If-Match", otherTag}},
                                      writeCompletion({{1, unquotedTag(tag)}}))
                                      .status == 412;
    EXPECT_EQ(found, bucket.settings().capabilities);
}

TEST(GatewayTest, SendsASmallObjectWithItsParts)
{
    REQUIRE_GATEWAY();
    const GatewayBucket bucket;
    FaultProxy proxy(bucket.settings().endpoint);
    S3Client client(bucket.settingsThrough(proxy.url()));
    S3Client other(bucket.settings());
    const auto read = [&](std::uint64_t last)
    {
        std::ostringstream out;
        client.getObjectRange("key", out, 0, last);
        return out.str();
    };
    for (const auto& [size, requests] : {std::pair(1U, 1U), {15U << 10U, 1U}, {16U << 10U, 1U}, {(16U << 10U) + 1, 2U}})
    {
        put(other, "key", std::string(size, 'a'));
        proxy.setPlan({});
        client.getObjectParts("key");
        EXPECT_EQ(read(size - 1), std::string(size, 'a'));
        EXPECT_EQ(proxy.seen().size(), requests) << size << " bytes";
    }
    // Delivered once, as it was when it was opened, and never in place of what this client has written since.
    put(client, "key", "mine");
    client.getObjectParts("key");
    put(other, "key", "theirs");
    EXPECT_EQ(read(0), "mine");
    EXPECT_THROW(read(0), CloudException);
    client.getObjectParts("key");
    put(client, "key", "mine again");
    EXPECT_EQ(read(0), "mine again");
}

// Everything that can go wrong between client and store, at each request of each operation. Always: an object is the
// old one or the new one; what was reported as done is in the store; a transient failure can be retried.

const std::string old = "the old content";
const std::string fresh = "the new and longer content";

/// What operations need: a client and a key, an upload and its part.
struct Scene
{
    CloudClient& client;
    const std::string key;
    std::string upload = {};
    PartInfo part = {0, 0, fresh.size(), ""};

    PartInfo storedPart() { return client.getObjectParts(key).at(0); }
    void begin(const std::string& tag) { upload = client.createMultipartUpload(key, tag); }
    void sendPart()
    {
        std::istringstream content(fresh);
        part.Tag = client.uploadPart(key, upload, part, content);
    }
    void complete() { client.completeMultipartUpload(key, upload, {part}); }
    void read()
    {
        std::ostringstream out;
        try
        {
            client.getObjectRange(key, out, 0, old.size() - 1);
        }
        catch (const CloudException&)
        {
            EXPECT_TRUE(old.starts_with(out.str())) << "wrong bytes were delivered: " << out.str();
            throw;
        }
        EXPECT_EQ(out.str(), old);
    }
    void list()
    {
        std::string token;
        const auto page = client.listObjects(key.substr(0, key.find('/') + 1), token, {});
        ASSERT_THAT(page, testing::SizeIs(1));
        EXPECT_EQ(page.front().key, key);
    }
};

struct Row
{
    const char* name;
    void (*run)(Scene&);
    std::optional<std::string> outcome = old; // what is stored afterwards
    void (*prepare)(Scene&) = [](Scene&) {};
    bool sends = true;
};

const std::string inParts = " in parts"; // added to the content of an object that was uploaded in parts

const std::vector<Row> rows{
    {"getObjectInfo", [](Scene& s) { EXPECT_EQ(s.client.getObjectInfo(s.key).size, old.size()); }},
    {"validateObjectName", [](Scene& s) { s.client.validateObjectName("name"); }, old, [](Scene&) {}, false},
    {"listObjects", [](Scene& s) { s.list(); }},
    {"deleteObject", [](Scene& s) { s.client.deleteObject(s.key); }, std::nullopt},
    {"getObjectRange", [](Scene& s) { s.read(); }, old,
        [](Scene& s)
        {
            s.storedPart();
            s.read(); // takes what came with the part
        }},
    {"putObject", [](Scene& s) { put(s.client, s.key, fresh); }, fresh},
    {"getObjectParts", [](Scene& s) { EXPECT_EQ(s.storedPart().Size, old.size()); }},
    {"createMultipartUpload", [](Scene& s) { s.begin(""); }, old, [](Scene&) {}, false},
    {"uploadPart", [](Scene& s) { s.sendPart(); }, old, [](Scene& s) { s.begin(""); }},
    {"abortMultipartUpload", [](Scene& s) { s.client.abortMultipartUpload(s.key, s.upload); }, old,
        [](Scene& s)
        {
            s.begin("");
            s.sendPart();
        }},
    {"completion of a sent part", [](Scene& s) { s.complete(); }, fresh + inParts,
        [](Scene& s)
        {
            s.begin("");
            s.sendPart();
        }},
    {"completion of a spooled part", [](Scene& s) { s.complete(); }, fresh + inParts,
        [](Scene& s)
        {
            s.begin(s.storedPart().Tag);
            s.sendPart();
        }},
    {"completion of a copy", [](Scene& s) { s.complete(); }, old + inParts,
        [](Scene& s)
        {
            s.part = s.storedPart();
            s.begin(s.part.Tag);
            s.part.Tag = s.client.copyPart(s.key, s.upload, s.part);
        }},
};

/// Injects one kind of fault into each request of each operation.
struct Sweep
{
    std::optional<std::string> contentOf(const std::string& key)
    {
        const auto content = get(direct, key);
        return content && direct.getObjectInfo(key).tag.ends_with("-1") ? *content + inParts : content;
    }

    /// @return whether there was a request of that number
    bool failRequest(const Row& row, std::size_t n, bool isPersistent)
    {
        FaultProxy proxy(bucket.settings().endpoint, isPersistent);
        S3Client client(bucket.settingsThrough(proxy.url()));
        Scene scene{client, row.name + std::string(isPersistent ? "!/key" : "/key")};
        put(direct, scene.key, old);
        row.prepare(scene);

        proxy.setPlan(FaultProxy::injectAt(fault, n, isPersistent));
        bool failed = false;
        try
        {
            row.run(scene);
        }
        catch (const CloudException& exception)
        {
            failed = true;
            const bool isTransient = dynamic_cast<const TransientException*>(&exception) != nullptr;
            const bool isDenied = dynamic_cast<const PermissionDeniedException*>(&exception) != nullptr;
            const bool isPermanent =
                fault == Fault::Precondition412 || fault == Fault::Denied403 || fault == Fault::Expired400;
            EXPECT_TRUE(isTransient != isPermanent && isDenied == (fault == Fault::Denied403))
                << exception.what() << ": " << exception.detail().value_or("");
        }
        const auto seen = proxy.seen();
        const bool isInjected = proxy.hasInjected();
        const auto isCompletion = [](const auto& request)
        {
            return request.head.method() == http::verb::post &&
                   request.head.target().find("uploadId=") != boost::string_view::npos;
        };
        // The client finds out by itself what became of a completion whose response was lost.
        const bool isLostCompletion = std::any_of(seen.begin(), seen.end(),
            [&](const auto& request) { return isAfter(request.fault) && isCompletion(request); });
        proxy.setPlan({});

        const auto now = contentOf(scene.key);
        EXPECT_TRUE(now == row.outcome || (failed && now == old)) << now.value_or("nothing") << " is stored";
        if (isPersistent)
        {
            EXPECT_TRUE(failed || !isInjected || isLostCompletion) << "succeeded although no request did";
        }
        else
        {
            const bool isHandled = fault == Fault::Expired400 || isLostCompletion;
            EXPECT_EQ(failed, isInjected && !isHandled) << seen.size() << " requests";
            EXPECT_LE(std::count_if(seen.begin(), seen.end(), isCompletion), fault == Fault::Expired400 ? 2 : 1)
                << "completed again without a check";
        }
        failed ? row.run(scene) : void();
        EXPECT_EQ(contentOf(scene.key), row.outcome) << "after the repeated call";
        return seen.size() >= n;
    }

    void failEachRequest(const Row& row, bool isPersistent)
    {
        bool reached = true;
        for (std::size_t n = 1; reached; ++n)
        {
            SCOPED_TRACE(testing::Message() << name(fault) << " at " << row.name << ", request " << n
                                            << (isPersistent ? " and all that follow" : ""));
            try
            {
                reached = failRequest(row, n, isPersistent);
                EXPECT_TRUE(n > 1 || reached == row.sends);
            }
            catch (const CloudException& exception)
            {
                ADD_FAILURE() << exception.what() << ": " << exception.detail().value_or("");
                return;
            }
        }
    }

    const Fault fault;
    const GatewayBucket bucket = {};
    S3Client direct{bucket.settings()};
};

class FaultTest : public testing::TestWithParam<Fault>
{
};

TEST_P(FaultTest, LosesNothingAtAnyOperation)
{
    REQUIRE_GATEWAY();
    Sweep sweep{GetParam()};
    std::vector<std::thread> threads; // the gateway takes longer for a request than its client
    for (const Row& row : rows)
    {
        threads.emplace_back([&] { sweep.failEachRequest(row, false); });
        threads.emplace_back([&] { sweep.failEachRequest(row, true); });
    }
    for (std::thread& thread : threads)
    {
        thread.join();
    }
    for (const PendingUpload& upload : sweep.direct.pendingUploads())
    {
        EXPECT_FALSE(upload.key.starts_with("abort")) << upload.key;
    }
}

INSTANTIATE_TEST_SUITE_P(
    Faults, FaultTest, testing::ValuesIn(allFaults), [](const auto& row) { return std::string(name(row.param)); });

} // namespace

} // namespace storage::clients::s3::test
