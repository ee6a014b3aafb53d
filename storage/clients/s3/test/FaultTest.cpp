#include "FaultyBucket.hpp"

#include "protocol/Requester.hpp"

#include <storage/clients/common/TransientException.hpp>
#include <storage/cloudprovider/CloudExceptions.hpp>

#include <gmock/gmock.h>

#include <atomic>
#include <sstream>
#include <thread>

// Everything that can go wrong between client and store, at each request of each operation. Whatever it is: an object
// is the old one or the new one; what was called done is in the store; what is called worth repeating can be repeated.

namespace storage::clients::s3::test
{

namespace
{

using namespace cloudprovider;
using namespace clients::test;
namespace http = boost::beast::http;

const std::string old = "the old content";
const std::string fresh = "the new and longer content";

/// One call of an operation, and what it needs.
struct Scene
{
    CloudClient& client;
    const std::string key;
    std::string upload = {};
    PartInfo part = {0, 0, fresh.size(), ""};

    void beginNew() { upload = client.createMultipartUpload(key, ""); }
    void beginUpload() { upload = client.createMultipartUpload(key, client.getObjectParts(key).at(0).Tag); }
    void sendPart()
    {
        std::istringstream content(fresh);
        part.Tag = client.uploadPart(key, upload, part, content);
    }
    void findPart() { part = client.getObjectParts(key).at(0); }
    void copyPart() { part.Tag = client.copyPart(key, upload, part); }
    void complete() { client.completeMultipartUpload(key, upload, {part}); }
};

struct Row
{
    Operation operation;
    std::function<void(Scene&)> run;
    Contents outcome = old; // what is stored afterwards
    std::function<void(Scene&)> prepare = [](Scene&) {};
    std::function<void(Scene&)> verify = [](Scene&) {}; // that it was done, where the object does not show it
    Contents verified = outcome;                        // what is stored after that
};

void readAll(Scene& scene)
{
    std::ostringstream out;
    try
    {
        scene.client.getObjectRange(scene.key, out, 0, old.size() - 1);
    }
    catch (const CloudException&)
    {
        EXPECT_TRUE(old.starts_with(out.str())) << "wrong bytes were handed out: " << out.str();
        throw;
    }
    EXPECT_EQ(out.str(), old);
}

const std::vector<Row> rows{
    {Operation::GetObjectInfo, [](Scene& s) { EXPECT_EQ(s.client.getObjectInfo(s.key).size, old.size()); }},
    {Operation::ValidateObjectName, [](Scene& s) { s.client.validateObjectName("name"); }},
    {Operation::ListObjects,
        [](Scene& s)
        {
            std::string token;
            const auto page = s.client.listObjects(s.key.substr(0, s.key.find('/') + 1), token, {});
            ASSERT_THAT(page, testing::SizeIs(1));
            EXPECT_EQ(page.front().key, s.key);
        }},
    {Operation::DeleteObject, [](Scene& s) { s.client.deleteObject(s.key); }, std::nullopt},
    {Operation::GetObjectRange, readAll, old,
        [](Scene& s)
        {
            s.client.getObjectParts(s.key);
            readAll(s); // what came with the parts
        }},
    {Operation::PutObject,
        [](Scene& s)
        {
            std::istringstream content(fresh);
            s.client.putObject(s.key, content, fresh.size());
        },
        fresh},
    {Operation::GetObjectParts, [](Scene& s) { EXPECT_EQ(s.client.getObjectParts(s.key).at(0).Size, old.size()); }},
    {Operation::CreateMultipartUpload, [](Scene& s) { s.client.createMultipartUpload(s.key, ""); }},
    {Operation::UploadPart, &Scene::sendPart, old, // of a new object; others send when they are completed
        &Scene::beginNew, &Scene::complete, fresh},
    {Operation::CopyPart, &Scene::copyPart, old,
        [](Scene& s)
        {
            s.beginUpload();
            s.findPart();
        }},
    {Operation::AbortMultipartUpload, [](Scene& s) { s.client.abortMultipartUpload(s.key, s.upload); }, old,
        [](Scene& s)
        {
            s.beginNew();
            s.sendPart();
        },
        [](Scene& s) { EXPECT_THROW(s.complete(), ResourceNotFoundException); }},
    {Operation::CompleteMultipartUpload, &Scene::complete, fresh,
        [](Scene& s)
        {
            s.beginUpload();
            s.sendPart();
        }},
    {Operation::CompleteMultipartUpload, &Scene::complete, old,
        [](Scene& s)
        {
            s.beginUpload();
            s.findPart();
            s.copyPart();
        },
        [](Scene& s) { EXPECT_THAT(s.client.getObjectInfo(s.key).tag, testing::EndsWith("-1")) << "not copied"; }},
};

/// Credentials that stay what they are, and count who wants new ones.
class RenewedCredentials : public CredentialsSource
{
public:
    explicit RenewedCredentials(Credentials credentials)
        : m_credentials(std::move(credentials))
    {
    }

    Credentials credentials() override { return m_credentials; }
    void refresh() override { ++m_renewals; }
    int renewals() const { return m_renewals; }

private:
    const Credentials m_credentials;
    std::atomic<int> m_renewals = 0;
};

constexpr std::chrono::seconds longestTry(30); // several stalls of a second each, on a machine that has other work

enum class Mode
{
    BareOnce,     // the client itself, one request struck
    RetryOnce,    // repeating calls, one request struck
    RetryForGood, // repeating calls, every request struck from one on
};

const char* name(Mode mode)
{
    return std::array{"BareOnce", "RetryOnce", "RetryForGood"}.at(static_cast<std::size_t>(mode));
}

class FaultTest : public FaultyBucket, public testing::WithParamInterface<Fault>
{
protected:
    FaultTest()
        : FaultyBucket(GetParam())
    {
    }

    const bool hasFollowedRegion = fault == Fault::Moved301 || fault == Fault::Moved307 || fault == Fault::Moved400;
    const bool isCured = hasFollowedRegion || fault == Fault::Expired400; // by the client itself
    const bool isHopeless = fault == Fault::Precondition412 || fault == Fault::Denied403;

    /// @return whether there was a request of that number
    bool strikeRequest(const Row& row, std::size_t n, Mode mode)
    {
        FaultProxy proxy(m_bucket->settings().endpoint, mode != Mode::BareOnce);
        VirtualTime time;
        S3Settings settings = settingsFor(proxy);
        const auto credentials = std::make_shared<RenewedCredentials>(settings.credentials->credentials());
        settings.credentials = credentials;
        const auto bare = std::make_shared<S3Client>(settings);
        const std::chrono::milliseconds budget = mode == Mode::RetryForGood ? shortBudget : std::chrono::minutes(1);
        RetryingClient retrying(bare, {.firstDelay = std::chrono::milliseconds(20), .budget = budget}, time.clock());
        CloudClient& client = mode == Mode::BareOnce ? static_cast<CloudClient&>(*bare) : retrying;
        Scene scene{
            client, std::string(name(row.operation)) + std::to_string(&row - rows.data()) + name(mode) + "/key"};
        store(scene.key, old);
        row.prepare(scene);

        proxy.setPlan(strike(n, mode == Mode::RetryForGood));
        bool failed = false;
        const auto begin = std::chrono::steady_clock::now();
        try
        {
            row.run(scene);
        }
        catch (const CloudException& exception)
        {
            failed = true;
            const std::string text = std::string(exception.what()) + ": " + exception.detail().value_or("");
            EXPECT_EQ(dynamic_cast<const TransientException*>(&exception) != nullptr, !isCured && !isHopeless) << text;
            EXPECT_EQ(dynamic_cast<const PermissionDeniedException*>(&exception) != nullptr, fault == Fault::Denied403)
                << text;
            EXPECT_EQ(dynamic_cast<const InvalidLocationException*>(&exception) != nullptr, hasFollowedRegion) << text;
            EXPECT_THAT(text, testing::HasSubstr(std::string(name(row.operation))));
        }
        const auto elapsed = std::chrono::steady_clock::now() - begin;
        const auto seen = proxy.seen();
        const bool reached = seen.size() >= n;
        const bool struck = proxy.struck() > 0;
        const auto isCompletion = [](const auto& request)
        {
            return request.head.method() == http::verb::post &&
                   request.head.target().find("uploadId=") != boost::string_view::npos;
        };
        const bool isEnd = std::any_of(seen.begin(), seen.end(),
            [&](const auto& request) { return request.fault != Fault::None && isCompletion(request); });
        proxy.setPlan({});

        const Contents now = stored(scene.key);
        EXPECT_TRUE(now == row.outcome || (failed && now == old)) << now.value_or("nothing") << " is stored";
        if (mode == Mode::RetryForGood)
        {
            EXPECT_LE(time.slept(), shortBudget);
            EXPECT_LE(elapsed, shortBudget + longestTry) << "a try ran past the limits of its requests";
            EXPECT_TRUE(failed || !struck || (isEnd && isAfter(fault))) << "done although nothing got through";
        }
        else
        {
            const bool isRepeated = mode == Mode::RetryOnce || isCured || (isEnd && isAfter(fault));
            EXPECT_EQ(failed, struck && (isHopeless || !isRepeated)) << "of " << seen.size() << " requests";
        }
        if (mode == Mode::BareOnce && isEnd && isAfter(fault))
        {
            EXPECT_EQ(std::count_if(seen.begin(), seen.end(), isCompletion), 1) << "completed again without a look";
        }
        if (mode == Mode::RetryOnce && fault == Fault::SlowDown503)
        {
            // A second was asked for, and of that the naps count; time that passes between them is slept through.
            EXPECT_EQ(time.slept() >= std::chrono::milliseconds(500), struck) << "Retry-After was not obeyed";
        }
        if (hasFollowedRegion && mode != Mode::RetryForGood && struck)
        {
            EXPECT_THAT(std::string(seen.back().head["Authorization"]), testing::HasSubstr("/elsewhere/s3/"));
        }
        EXPECT_EQ(credentials->renewals() > 0, fault == Fault::Expired400 && struck);
        failed ? row.run(scene) : void();
        EXPECT_EQ(stored(scene.key), row.outcome) << "after the repeated call";
        row.verify(scene);
        EXPECT_EQ(stored(scene.key), row.verified) << "later";
        if (row.operation == Operation::AbortMultipartUpload)
        {
            EXPECT_THAT(m_direct->pendingUploads(),
                testing::Not(testing::Contains(testing::Field(&PendingUpload::key, scene.key))));
        }
        return reached;
    }

    void strikeOperation(const Row& row, Mode mode)
    {
        const bool sends = row.operation != Operation::CopyPart && row.operation != Operation::ValidateObjectName &&
                           row.operation != Operation::CreateMultipartUpload;
        bool reached = true;
        for (std::size_t n = 1; reached; ++n)
        {
            SCOPED_TRACE(testing::Message()
                         << name(fault) << " at " << row.operation << ", request " << n << ", mode " << name(mode));
            try
            {
                reached = strikeRequest(row, n, mode);
                EXPECT_TRUE(n > 1 || reached == sends);
            }
            catch (const CloudException& exception)
            {
                ADD_FAILURE() << exception.what() << ": " << exception.detail().value_or("");
                return;
            }
        }
    }
};

TEST_P(FaultTest, LosesNothingAtAnyOperation)
{
    std::vector<std::thread> threads; // since stalls take their time
    for (const Row& row : rows)
    {
        for (const Mode mode : {Mode::BareOnce, Mode::RetryOnce, Mode::RetryForGood})
        {
            threads.emplace_back([&, mode] { strikeOperation(row, mode); });
        }
    }
    for (std::thread& thread : threads)
    {
        thread.join();
    }
}

INSTANTIATE_TEST_SUITE_P(
    Faults, FaultTest, testing::ValuesIn(allFaults), [](const auto& row) { return std::string(name(row.param)); });

TEST(DamageTest, IsNoticedOnTheWayToTheStoreAndInWhatIsReadWhole)
{
    REQUIRE_GATEWAY();
    const GatewayBucket bucket;
    S3Request publish{Operation::PutObject, "", "PUT", {{"acl", ""}}};
    publish.headers.add("x-amz-acl", "public-read-write");
    Requester(bucket.settings()).send(publish);
    FaultProxy proxy(bucket.settings().endpoint);
    VirtualTime time;
    const auto strikeFirst = [&](Fault fault)
    { proxy.setPlan([=](const Request&, std::size_t number) { return number == 1 ? fault : Fault::None; }); };
    std::shared_ptr<S3Client> bare;
    std::unique_ptr<RetryingClient> retrying;
    for (const auto& credentials : {anonymousCredentials(), bucket.settings().credentials})
    {
        SCOPED_TRACE(credentials->credentials().keyId);
        S3Settings settings = bucket.settingsThrough(proxy.url());
        settings.credentials = credentials;
        bare = std::make_shared<S3Client>(settings);
        retrying = std::make_unique<RetryingClient>(bare, RetryPolicy(), time.clock());
        std::istringstream content(fresh);
        strikeFirst(Fault::FlippedBefore);
        EXPECT_THROW(bare->putObject("key", content, fresh.size()), TransientException);
        content.seekg(0);
        strikeFirst(Fault::FlippedBefore);
        retrying->putObject("key", content, fresh.size());
    }
    for (const std::uint64_t last : {std::uint64_t{0}, fresh.size() - 1}) // both mean all of it
    {
        std::ostringstream damaged, whole;
        strikeFirst(Fault::FlippedAfter);
        EXPECT_THROW(bare->getObjectRange("key", damaged, 0, last), TransientException);
        strikeFirst(Fault::FlippedAfter);
        retrying->getObjectRange("key", whole, 0, last);
        EXPECT_EQ(whole.str(), fresh);
    }
}

} // namespace

} // namespace storage::clients::s3::test
