#include "FaultProxy.hpp"
#include "TestCalls.hpp"

#include "protocol/Requester.hpp"

#include <storage/clients/common/TransientException.hpp>
#include <storage/clients/decorators/PipelinedUploadClient.hpp>
#include <storage/clients/decorators/ReadAheadClient.hpp>
#include <storage/clients/decorators/RetryingClient.hpp>
#include <storage/clients/s3/S3Client.hpp>
#include <storage/clients/testing/CloudClientConformance.hpp>

#include <gtest/gtest.h>

#include <algorithm>
#include <cstdlib>
#include <optional>
#include <sstream>

#include <unistd.h>

// The client against a real gateway: what every store must do, and what happens when requests fail or another client
// writes at the same time.

namespace storage::clients::s3::test
{

namespace
{

using namespace cloudprovider;
using namespace clients::test;
using conformance::put;
using Verb = boost::beast::http::verb;
using Content = std::optional<std::string>; // nothing: no object

Content contentOf(CloudClient& client, const std::string& key, bool opens = true)
{
    const bool exists = client.getObjectInfo(key).exists;
    if (opens && exists)
    {
        client.getObjectParts(key);
    }
    return exists ? Content(conformance::get(client, key)) : std::nullopt;
}

/// What a server lacks, by the name that CLOUDFS_TEST_S3_SERVER gives it. The tests excuse nothing else.
struct KnownServer
{
    const char* name;
    const char* noUnlistedParts; ///< as in conformance::Capabilities
};

const KnownServer knownServers[] = {{"ceph", "this gateway wants every part listed"}, {"another", ""}};

KnownServer knownServer()
{
    const char* const name = std::getenv("CLOUDFS_TEST_S3_SERVER");
    return *std::find_if(std::begin(knownServers), std::end(knownServers) - 1,
        [&](const KnownServer& server) { return std::string(name == nullptr ? "" : name) == server.name; });
}

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
        const std::string failure = failureOf(
            [this]
            {
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
        EXPECT_EQ(failure, "");
    }

    /// Null: there is no gateway.
    static const char* endpoint() { return std::getenv("CLOUDFS_TEST_S3_ENDPOINT"); }

    /// The same bucket, reached through a proxy, with fewer requests for an object than by default.
    S3Settings settingsThrough(const FaultProxy& proxy) const
    {
        S3Settings through = settings;
        through.endpoint = proxy.url();
        through.partSize = 1 << 20;
        return through;
    }

    static inline std::atomic<unsigned> count = 0;
    const S3Settings settings = parseS3Url("s3://test-" + std::to_string(::getpid()) + "-" + std::to_string(++count) +
                                           "?path-style=1&endpoint=" + endpoint());
};

/// Uses virtual hosts; all other tests have the bucket in the path. Another client has the decorators of openStore().
class S3Harness : public conformance::Harness
{
public:
    CloudClient& client() override { return *m_client; }

    CloudClientSharedPtr openAnother() override
    {
        return std::make_shared<ReadAheadClient>(
            std::make_shared<PipelinedUploadClient>(std::make_shared<RetryingClient>(makeClient())));
    }

    CloudClientSharedPtr openReadOnly() override
    {
        S3Settings settings = m_bucket.settings;
        settings.bucket += "-missing";
        return std::make_shared<S3Client>(settings);
    }

    conformance::Capabilities capabilities() const override
    {
        return {5 << 20, "", "", "an object is cut by rule", knownServer().noUnlistedParts,
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

class GatewayTest : public testing::Test
{
protected:
    void SetUp() override
    {
        if (GatewayBucket::endpoint() == nullptr)
        {
            GTEST_SKIP() << "there is no gateway; scripts/test.sh starts one";
        }
        bucket.emplace();
        direct.emplace(bucket->settings);
    }

    std::optional<GatewayBucket> bucket;
    std::optional<S3Client> direct; // not through a proxy
};

TEST_F(GatewayTest, SendsASmallObjectWithItsParts)
{
    FaultProxy proxy(bucket->settings.endpoint);
    S3Client client(bucket->settingsThrough(proxy));
    constexpr std::size_t largest = 16 << 10;
    for (const auto& [size, requests] : {std::pair(std::size_t{1}, 1U), {largest, 1U}, {largest + 1, 2U}})
    {
        put(*direct, "key", std::string(size, 'a'));
        proxy.setPlan({});
        client.getObjectParts("key");
        EXPECT_EQ(conformance::get(client, "key", 0, size - 1), std::string(size, 'a'));
        EXPECT_EQ(proxy.seen().size(), requests) << size << " bytes";
    }
    // Delivered once, as it was when it was opened, and never in place of what this client has written since.
    put(client, "key", "mine");
    client.getObjectParts("key");
    put(*direct, "key", "theirs");
    EXPECT_EQ(conformance::get(client, "key"), "mine");
    EXPECT_THROW(conformance::get(client, "key"), CloudException);
    client.getObjectParts("key");
    put(client, "key", "mine again");
    EXPECT_EQ(conformance::get(client, "key"), "mine again");
}

// Everything that can go wrong between client and store, at each request of each operation. Always: an object is the
// old one or the new one; what was reported as done is in the store; a transient failure can be retried.

bool loseResponse(const Request&, Reply& reply)
{
    reply = Reply::reset();
    return true;
}

bool cutBody(const Request& request, Reply& reply)
{
    if (request.method() == Verb::head || reply.status == 204)
    {
        return false;
    }
    reply.fields.emplace_back("Content-Length", std::to_string(std::max<std::size_t>(reply.body.size(), 1)));
    reply.body.resize(reply.body.size() / 2);
    return true;
}

bool cutDocument(const Request&, Reply& reply)
{
    // A client can do without what the store has not implemented, whatever the document says.
    const bool isDocument = reply.body.starts_with('<') && reply.status != 501;
    reply.body.resize(isDocument ? reply.body.size() / 2 : reply.body.size());
    return isDocument;
}

const Fault faults[] = {
    {"ResetBefore", Reply::reset()}, {"SlowDown503", Reply::error(503, "SlowDown")},
    {"ErrorUnder200", Reply::error(200, "InternalError")}, {"Precondition412", Reply::error(412, "PreconditionFailed")},
    {"Denied403", Reply::error(403, "AccessDenied")}, {"Expired400", Reply::error(400, "ExpiredToken")},
    {"ResetAfter", {}, loseResponse}, {"CutBodyAfter", {}, cutBody}, // fewer bytes than promised
    {"CutDocumentAfter", {}, cutDocument},                           // transferred whole
};

const std::string old = "the old content";
const std::string fresh = "the new and longer content";
const std::string large((6 << 20) + 1000, 'a');
constexpr std::size_t patchOffset = (5 << 20) + 100; // the bytes before are copied, those after it are read and sent
const std::string patched = std::string(large).replace(patchOffset, fresh.size(), fresh);

/// What operations need: a client and a key, an upload and its parts.
struct Scene
{
    CloudClient& client;
    const std::string key;
    PreparedUpload upload = {};
    std::ostringstream received = {};
    std::unique_ptr<WriteConditions::Condition> condition = nullptr;

    /// Require the version that is there, or that there is none.
    Scene& pinWrites()
    {
        auto& conditions = dynamic_cast<WriteConditions&>(client);
        condition = conditions.requireVersion(key, client.getObjectInfo(key).tag);
        return *this;
    }
    Scene& removed()
    {
        client.deleteObject(key);
        return *this;
    }
    Scene& begin()
    {
        upload.id = client.createMultipartUpload(key, "");
        return *this;
    }
    void sendPart() { upload.parts = {conformance::uploadPart(client, key, upload.id, 0, fresh)}; }
    void complete() { upload.complete(client, key); }
};

void readAll(Scene& scene)
{
    scene.received.str("");
    scene.client.getObjectRange(scene.key, scene.received, 0, old.size() - 1);
}

struct Row
{
    const char* name;
    void (*run)(Scene&);
    Content outcome = old; // what is stored afterwards
    void (*prepare)(Scene&) = [](Scene&) {};
    std::string before = old;
};

const Row rows[] = {
    {"getObjectInfo", [](Scene& s) { EXPECT_EQ(s.client.getObjectInfo(s.key).size, old.size()); }},
    {"listObjects", [](Scene& s) { EXPECT_EQ(conformance::keys(s.client, s.key), std::vector{s.key}); }},
    {"deleteObject", [](Scene& s) { s.client.deleteObject(s.key); }, std::nullopt},
    {"getObjectRange", readAll},
    {"putObject", [](Scene& s) { put(s.client, s.key, fresh); }, fresh,
        [](Scene& s) { s.client.getObjectParts(s.key); }},
    {"getObjectParts", [](Scene& s) { EXPECT_EQ(s.client.getObjectParts(s.key).at(0).Size, old.size()); }},
    {"uploadPart", [](Scene& s) { s.sendPart(); }, old, [](Scene& s) { s.begin(); }},
    {"abort", [](Scene& s) { s.client.abortMultipartUpload(s.key, s.upload.id); }, old,
        [](Scene& s) { s.begin().sendPart(); }},
    {"completion", [](Scene& s) { s.complete(); }, fresh, [](Scene& s) { s.begin().sendPart(); }},
    {"conditionalDeletion", [](Scene& s) { s.client.deleteObject(s.key); }, std::nullopt,
        [](Scene& s) { s.pinWrites(); }},
    {"creation", [](Scene& s) { put(s.client, s.key, fresh); }, fresh, [](Scene& s) { s.removed().pinWrites(); }},
    {"creationInParts", [](Scene& s) { s.complete(); }, fresh,
        [](Scene& s) { s.removed().pinWrites().begin().sendPart(); }},
    {"completionOfAPatch", [](Scene& s) { s.complete(); }, patched,
        [](Scene& s) { s.upload = preparePatch(s.client, s.key, patchOffset, fresh); }, large},
};

class FaultTest : public GatewayTest, public testing::WithParamInterface<Fault>
{
protected:
    /// Inject the fault into one request of an operation, or also into all that follow.
    /// @return whether there was a request of that number
    bool failRequest(const Row& row, std::size_t n, bool isPersistent)
    {
        const Fault& fault = GetParam();
        const int status = fault.instead ? fault.instead->status : 200;
        FaultProxy proxy(bucket->settings.endpoint);
        S3Client client(bucket->settingsThrough(proxy));
        Scene scene{client, row.name + std::string(isPersistent ? "!/key" : "/key")};
        n == 1 || row.outcome != row.before ? put(*direct, scene.key, row.before) : void();
        row.prepare(scene);
        const Content before = contentOf(*direct, scene.key);

        proxy.setPlan(
            [&](std::size_t number) { return number == n || (isPersistent && number > n) ? &fault : nullptr; });
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
            EXPECT_TRUE(isTransient == (status / 100 != 4) && isDenied == (status == 403)) << textOf(exception);
        }
        EXPECT_TRUE(old.starts_with(scene.received.str())) << "wrong bytes were delivered";
        const auto seen = proxy.seen();
        proxy.setPlan({});
        const bool isInjected = std::any_of(seen.begin(), seen.end(), [](const auto& one) { return one.isFaulty; });
        // The client finds out by itself what became of a completion whose response was lost. It replaces expired
        // credentials once, and asks with GET why a HEAD request was denied.
        const bool recovers = std::any_of(seen.begin(), seen.end(),
            [&](const auto& request)
            {
                return request.isFaulty &&
                       ((isCompletion(request.head) && !fault.instead) ||
                           (!isPersistent &&
                               (status == 400 || (status == 403 && request.head.method() == Verb::head))));
            });
        const Content now = contentOf(*direct, scene.key);
        Content seenNow = before; // or a failure: after a lost response it does not know what is stored
        const std::string unread = failureOf([&] { seenNow = contentOf(client, scene.key, false); });
        EXPECT_TRUE(seenNow == now || (failed && seenNow == before)) << "the client reads another version";
        EXPECT_TRUE(unread.empty() || failed) << unread;
        EXPECT_TRUE(now == row.outcome || (failed && now == before)) << "neither old nor new is stored";
        EXPECT_TRUE(!failed || isInjected) << "failed without a fault";
        EXPECT_TRUE(failed || !isInjected || recovers) << "succeeded although a request failed";
        const auto completions =
            std::count_if(seen.begin(), seen.end(), [](const auto& request) { return isCompletion(request.head); });
        EXPECT_LE(completions, status == 400 ? 2 : 1) << "completed again without a check";
        if (failed)
        {
            row.run(scene);
            EXPECT_TRUE(contentOf(*direct, scene.key) == row.outcome) << "after the repeated call";
        }
        EXPECT_EQ(scene.received.str(), row.run == readAll ? old : "");
        return seen.size() >= n;
    }

    void failEachRequest(const Row& row, bool isPersistent)
    {
        bool isReached = true;
        for (std::size_t n = 1; isReached; ++n)
        {
            SCOPED_TRACE(testing::Message() << row.name << ", request " << n << (isPersistent ? " and all after" : ""));
            ++faultedRuns;
            const std::string failure = failureOf([&] { isReached = failRequest(row, n, isPersistent); });
            ASSERT_EQ(failure, "");
            EXPECT_TRUE(isReached || n > 1) << "no request";
        }
    }

    std::atomic<int> faultedRuns = 0;
};

TEST_P(FaultTest, LosesNothingAtAnyOperation)
{
    {
        std::vector<std::jthread> threads; // the gateway takes longer for a request than its client
        for (const Row& row : rows)
        {
            threads.emplace_back([&] { failEachRequest(row, false); });
            threads.emplace_back([&] { failEachRequest(row, true); });
        }
    }
    RecordProperty("faultedRuns", faultedRuns); // for bench/campaigns/sweep.py
    for (const PendingUpload& upload : direct->pendingUploads())
    {
        EXPECT_TRUE(upload.key.starts_with("uploadPart") || upload.key.starts_with("completion"))
            << upload.key << " has an open upload";
    }
}

INSTANTIATE_TEST_SUITE_P(
    Faults, FaultTest, testing::ValuesIn(faults), [](const auto& row) { return std::string(row.param.name); });

// Two clients and one object. One opens it, reads it, patches it and completes the upload; the other changes the object
// just before one of the requests that this takes.

struct Race
{
    const char* name;
    std::size_t size;
    void (*change)(CloudClient& other, const std::string& theirs);
};

const auto overwrite = [](CloudClient& other, const std::string& theirs) { put(other, "key", theirs); };
const auto overwriteInParts = [](CloudClient& other, const std::string& theirs)
{ conformance::putParts(other, "key", {theirs}); };
const auto remove = [](CloudClient& other, const std::string&) { other.deleteObject("key"); };

class RaceTest : public GatewayTest, public testing::WithParamInterface<Race>
{
};

TEST_P(RaceTest, LeavesOneVersionOfTheTwo)
{
    const Race& race = GetParam();
    const std::string before(race.size, 'o');
    const std::string ours = std::string(before).replace(race.size / 2, 5, "patch");
    const std::string theirs(race.size, 't');
    bool isReached = true;
    for (std::size_t n = 2; isReached && !HasFailure(); ++n)
    {
        SCOPED_TRACE(testing::Message() << "before request " << n);
        put(*direct, "key", before);
        FaultProxy proxy(bucket->settings.endpoint);
        proxy.setPlan(
            [&](std::size_t number)
            {
                number == n ? race.change(*direct, theirs) : void();
                return nullptr;
            });
        S3Client client(bucket->settingsThrough(proxy));
        std::string content;
        const std::string failure =
            failureOf([&] { preparePatch(client, "key", race.size / 2, "patch", &content).complete(client, "key"); });
        const std::size_t requests = proxy.seen().size();
        isReached = requests >= n;
        const Content now = contentOf(*direct, "key");
        EXPECT_TRUE(before.starts_with(content)) << "what was read is a mixture";
        EXPECT_TRUE(!failure.empty() || (content == before && now == ours)) << "not all was read or stored";
        EXPECT_TRUE(failure.empty() || now == (race.change == remove ? std::nullopt : Content(theirs))) << failure;
        EXPECT_TRUE(isReached || (failure.empty() && n > 6)) << n << " requests: " << failure;
        // This endpoint cannot check and complete in one step. Even then nothing is mixed.
        EXPECT_TRUE(!failure.empty() || n >= requests) << "their version was replaced without an error";
    }
}

INSTANTIATE_TEST_SUITE_P(Changes, RaceTest,
    testing::Values(Race{"Put", large.size(), overwrite}, Race{"Delete", large.size(), remove},
        Race{"PutInParts", large.size(), overwriteInParts}, Race{"PutSmall", 100'000, overwrite},
        Race{"DeleteSmall", 100'000, remove}),
    [](const auto& row) { return std::string(row.param.name); });

} // namespace

} // namespace storage::clients::s3::test
