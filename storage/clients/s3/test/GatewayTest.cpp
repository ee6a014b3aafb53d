#include "Gateway.hpp"
#include "FaultProxy.hpp"
#include "FileSession.hpp"

#include "protocol/Requester.hpp"
#include "protocol/Responses.hpp"

#include <storage/clients/common/TransientException.hpp>
#include <storage/clients/testing/CloudClientConformance.hpp>
#include <storage/cloudprovider/CloudExceptions.hpp>

#include <foundation/log/basic_diagnostic_logger.hpp>

#include <gmock/gmock.h>

#include <algorithm>
#include <sstream>
#include <thread>

// The client against a real gateway: what every store must do, what this one can do, and what happens when requests
// to it fail or another client writes at the same time.

namespace storage::clients::s3::test
{

namespace
{

using namespace cloudprovider;
using namespace clients::test;
namespace http = boost::beast::http;

void put(CloudClient& client, const std::string& key, const std::string& content)
{
    std::istringstream stream(content);
    client.putObject(key, stream, content.size());
}

std::optional<std::string> get(CloudClient& client, const std::string& key)
{
    std::ostringstream stream;
    if (!client.getObjectInfo(key).exists)
    {
        return std::nullopt;
    }
    client.getObjectRange(key, stream, 0, 0);
    return stream.str();
}

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
const std::string large((7 << 20) + 1000, 'a'); // is written in two parts and copied in one
const std::string inParts = " in parts";        // added to the content of an object that was uploaded in parts
const FileSession newFile{.truncate = fsp::ByteStreamTruncate::Discard, .bytes = large};
const FileSession patch{.reads = true, .offset = (6 << 20) + 100, .bytes = fresh};
const std::string patched = patch.appliedTo(large);

/// What operations need: a client and a key, an upload and its part.
struct Scene
{
    CloudClient& client;
    const std::string key;
    std::string upload = {};
    PartInfo part = {0, 0, fresh.size(), ""};

    PartInfo storedPart() { return client.getObjectParts(key).at(0); }
    Scene& begin(const std::string& tag)
    {
        upload = client.createMultipartUpload(key, tag);
        return *this;
    }
    void sendPart()
    {
        std::istringstream content(fresh);
        part.Tag = client.uploadPart(key, upload, part, content);
    }
    void copyPart()
    {
        part = storedPart();
        part.Tag = client.copyPart(key, upload, part);
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
        ASSERT_THAT(page, testing::ElementsAre(testing::Field(&ObjectEntry::key, key)));
    }
    void work(const FileSession& session)
    {
        const auto result = session.run(workingAhead(CloudClientSharedPtr(CloudClientSharedPtr(), &client)), key);
        EXPECT_TRUE(large.starts_with(result.content) || patched.starts_with(result.content))
            << "wrong bytes were read";
        if (!result.succeeded)
        {
            throw TransientException("The file failed");
        }
    }
};

struct Row
{
    const char* name;
    void (*run)(Scene&);
    std::optional<std::string> outcome = old; // what is stored afterwards
    void (*prepare)(Scene&) = [](Scene&) {};
    bool isFile = false; // is written by a host, whose provider may recover by itself
    std::string before = old;
};

const std::vector<Row> rows{
    {"getObjectInfo", [](Scene& s) { EXPECT_EQ(s.client.getObjectInfo(s.key).size, old.size()); }},
    {"listObjects", [](Scene& s) { s.list(); }},
    {"deleteObject", [](Scene& s) { s.client.deleteObject(s.key); }, std::nullopt},
    {"getObjectRange", [](Scene& s) { s.read(); }},
    {"putObject", [](Scene& s) { put(s.client, s.key, fresh); }, fresh},
    {"getObjectParts", [](Scene& s) { EXPECT_EQ(s.storedPart().Size, old.size()); }},
    {"uploadPart", [](Scene& s) { s.sendPart(); }, old, [](Scene& s) { s.begin(""); }},
    {"abort", [](Scene& s) { s.client.abortMultipartUpload(s.key, s.upload); }, old,
        [](Scene& s) { s.begin("").sendPart(); }},
    {"completion of a sent part", [](Scene& s) { s.complete(); }, fresh + inParts,
        [](Scene& s) { s.begin("").sendPart(); }},
    {"completion of a spooled part", [](Scene& s) { s.complete(); }, fresh + inParts,
        [](Scene& s) { s.begin(s.storedPart().Tag).sendPart(); }},
    {"completion of a copy", [](Scene& s) { s.complete(); }, old + inParts,
        [](Scene& s) { s.begin(s.storedPart().Tag).copyPart(); }},
    {"newFile", [](Scene& s) { s.work(newFile); }, large + inParts, [](Scene&) {}, true},
    {"patchedFile", [](Scene& s) { s.work(patch); }, patched + inParts, [](Scene&) {}, true, large},
};

/// Injects one kind of fault into each request of each operation.
struct Sweep
{
    std::optional<std::string> contentOf(const std::string& key)
    {
        const auto content = get(direct, key);
        return content && direct.getObjectInfo(key).tag.find('-') != std::string::npos ? *content + inParts : content;
    }

    /// @return whether there was a request of that number
    bool failRequest(const Row& row, std::size_t n, bool isPersistent)
    {
        FaultProxy proxy(bucket.settings().endpoint, isPersistent);
        S3Client client(bucket.settingsThrough(proxy.url()));
        Scene scene{client, row.name + std::string(isPersistent ? "!/key" : "/key")};
        contentOf(scene.key) == row.before ? void() : put(direct, scene.key, row.before);
        row.prepare(scene);

        proxy.setPlan(
            [&row, plan = FaultProxy::injectAt(fault, n, isPersistent)](const Request& request, std::size_t number)
            {
                // Where a file failed, the abort of its upload gets through: an open upload was never aborted.
                const bool isCleanup = row.isFile && request.method() == http::verb::delete_;
                return isCleanup ? Fault::None : plan(request, number);
            });
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
        EXPECT_TRUE(now == row.outcome || (failed && now == row.before)) << "neither old nor new is stored";
        EXPECT_TRUE(!failed || isInjected) << "failed without a fault";
        if (!isPersistent)
        {
            EXPECT_LE(std::count_if(seen.begin(), seen.end(), isCompletion), fault == Fault::Expired400 ? 2 : 1)
                << "completed again without a check";
        }
        const bool recovers = isLostCompletion || row.isFile || (!isPersistent && fault == Fault::Expired400);
        EXPECT_TRUE(failed || !isInjected || recovers) << "succeeded although a request failed";
        failed ? row.run(scene) : void();
        EXPECT_TRUE(contentOf(scene.key) == row.outcome) << "after the repeated call";
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
            }
            catch (const CloudException& exception)
            {
                ADD_FAILURE() << exception.what() << ": " << exception.detail().value_or("");
                return;
            }
            EXPECT_TRUE(reached || n > (row.isFile ? 4 : 1)) << "too few requests";
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
    // Files move megabytes. What does not differ for a host is injected into other operations only.
    const bool isForFiles =
        sweep.fault == Fault::ResetBefore || sweep.fault == Fault::ResetAfter || sweep.fault == Fault::ErrorUnder200;
    foundation::log::setSink([](auto&&...) {}); // failed files are logged
    std::vector<std::thread> threads;           // the gateway takes longer for a request than its client
    for (const Row& row : rows)
    {
        for (const bool isPersistent : {false, true})
        {
            if (!row.isFile || isForFiles)
            {
                threads.emplace_back([&, isPersistent] { sweep.failEachRequest(row, isPersistent); });
            }
        }
    }
    for (std::thread& thread : threads)
    {
        thread.join();
    }
    foundation::log::setSink({});
    for (const PendingUpload& upload : sweep.direct.pendingUploads())
    {
        const bool isLost = isAfter(sweep.fault) && upload.key.find("File") != std::string::npos; // its id was
        EXPECT_TRUE(isLost || upload.key.starts_with("uploadPart") || upload.key.starts_with("completion"))
            << upload.key << " has an open upload";
    }
}

INSTANTIATE_TEST_SUITE_P(
    Faults, FaultTest, testing::ValuesIn(allFaults), [](const auto& row) { return std::string(name(row.param)); });

// Two clients and one file. One opens it, reads it from beginning to end, patches it and closes; the other changes the
// object just before one of the requests that this takes, be it the first or the completion.

constexpr std::size_t smallSize = 100'000;

struct Race
{
    const char* name;
    bool worksAhead;
    std::size_t size;
    void (*change)(CloudClient& other, const std::string& theirs);
};

void overwrite(CloudClient& other, const std::string& theirs)
{
    put(other, "file", theirs);
}

void remove(CloudClient& other, const std::string&)
{
    other.deleteObject("file");
}

void overwriteInParts(CloudClient& other, const std::string& theirs)
{
    const std::string upload = other.createMultipartUpload("file", "");
    std::istringstream content(theirs);
    PartInfo part{0, 0, theirs.size(), ""};
    part.Tag = other.uploadPart("file", upload, part, content);
    other.completeMultipartUpload("file", upload, {part});
}

class RaceTest : public testing::TestWithParam<Race>
{
};

TEST_P(RaceTest, TheObjectIsWhollyTheirsOrWhollyOurs)
{
    REQUIRE_GATEWAY();
    const auto& [name, worksAhead, size, change] = GetParam();
    const GatewayBucket bucket;
    S3Client other(bucket.settings());
    const std::string before(size, 'o');
    const std::string theirs(change == remove ? 0 : size, 't');
    const FileSession session{.reads = true, .offset = size / 2, .bytes = "patch"};
    bool reached = true;
    foundation::log::setSink([](auto&&...) {}); // failures are logged
    for (std::size_t n = 1; reached && !HasFailure(); ++n)
    {
        SCOPED_TRACE(testing::Message() << name << " before request " << n);
        put(other, "file", before);
        FaultProxy proxy(bucket.settings().endpoint);
        proxy.setPlan(
            [&, act = change](const Request&, std::size_t number)
            {
                number == n ? act(other, theirs) : void();
                return Fault::None;
            });
        const auto client = std::make_shared<S3Client>(bucket.settingsThrough(proxy.url()));
        const auto [succeeded, content] = session.run(worksAhead ? workingAhead(client) : client, "file");

        const std::size_t requests = proxy.seen().size();
        const std::string& seen = content.starts_with('o') ? before : theirs;
        const std::string ours = session.appliedTo(seen);
        const std::string now = get(other, "file").value_or("");
        reached = requests >= n;
        EXPECT_TRUE(seen.starts_with(content)) << "what was read is a mixture";
        EXPECT_TRUE(!succeeded || content.size() == seen.size()) << "not all was read";
        EXPECT_EQ(now == theirs, reached && !succeeded) << "theirs was replaced, or ours was not stored";
        EXPECT_TRUE(now == theirs || now == ours) << "what is stored is a mixture";
        if (size == large.size() && reached && seen == before && succeeded)
        {
            // This endpoint cannot check and complete in one step. Even then nothing is mixed.
            EXPECT_EQ(n, requests) << "their version was replaced without an error";
        }
        EXPECT_TRUE(succeeded || n > 1) << "nothing of the old version had been seen yet";
        EXPECT_TRUE(reached || (succeeded && n > (size == large.size() ? 8 : 3))) << n << " requests";
    }
    foundation::log::setSink({});
}

INSTANTIATE_TEST_SUITE_P(Changes, RaceTest,
    testing::Values(Race{"PutAhead", true, large.size(), overwrite}, Race{"DeleteAhead", true, large.size(), remove},
        Race{"PutInPartsAhead", true, smallSize, overwriteInParts},
        Race{"PutInParts", false, large.size(), overwriteInParts}, Race{"PutSmall", false, smallSize, overwrite},
        Race{"DeleteSmall", false, smallSize, remove}),
    [](const auto& row) { return std::string(row.param.name); });

} // namespace

} // namespace storage::clients::s3::test
