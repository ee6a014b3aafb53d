#include "FaultyBucket.hpp"

#include <storage/clients/common/TransientException.hpp>
#include <storage/cloudprovider/CloudExceptions.hpp>

#include <gmock/gmock.h>

#include <algorithm>
#include <sstream>
#include <thread>

// Everything that can go wrong between client and store, at each request of each operation. Always: an object is the
// old one or the new one; what was reported as done is in the store; a transient failure can be retried.

namespace storage::clients::s3::test
{

namespace
{

using namespace cloudprovider;
using namespace clients::test;
namespace http = boost::beast::http;

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
    void put()
    {
        std::istringstream content(fresh);
        client.putObject(key, content, fresh.size());
    }
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
    Contents outcome = old; // what is stored afterwards
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
    {"putObject", [](Scene& s) { s.put(); }, fresh},
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

class FaultTest : public FaultyBucket, public testing::WithParamInterface<Fault>
{
protected:
    FaultTest()
        : FaultyBucket(GetParam())
    {
    }

    Contents contentOf(const std::string& key)
    {
        Contents content = stored(key);
        return content && m_direct->getObjectInfo(key).tag.ends_with("-1") ? *content + inParts : content;
    }

    /// @return whether there was a request of that number
    bool failRequest(const Row& row, std::size_t n, bool isPersistent)
    {
        FaultProxy proxy(m_bucket->settings().endpoint, isPersistent);
        S3Client client(settingsFor(proxy));
        Scene scene{client, row.name + std::string(isPersistent ? "!/key" : "/key")};
        store(scene.key, old);
        row.prepare(scene);

        proxy.setPlan(injectAt(n, isPersistent));
        bool failed = false;
        try
        {
            row.run(scene);
        }
        catch (const CloudException& exception)
        {
            failed = true;
            const auto* transient = dynamic_cast<const TransientException*>(&exception);
            const bool isPermanent =
                fault == Fault::Precondition412 || fault == Fault::Denied403 || fault == Fault::Expired400;
            EXPECT_EQ(transient == nullptr, isPermanent) << exception.what() << ": " << exception.detail().value_or("");
            EXPECT_EQ(dynamic_cast<const PermissionDeniedException*>(&exception) != nullptr, fault == Fault::Denied403);
        }
        const auto seen = proxy.seen();
        const bool isInjected = proxy.injected() > 0;
        const auto isCompletion = [](const auto& request)
        {
            return request.head.method() == http::verb::post &&
                   request.head.target().find("uploadId=") != boost::string_view::npos;
        };
        // The client finds out by itself what became of a completion whose response was lost.
        const bool isLostCompletion =
            isAfter(fault) &&
            std::any_of(seen.begin(), seen.end(),
                [&](const auto& request) { return request.fault != Fault::None && isCompletion(request); });
        proxy.setPlan({});

        const Contents now = contentOf(scene.key);
        EXPECT_TRUE(now == row.outcome || (failed && now == old)) << now.value_or("nothing") << " is stored";
        if (isPersistent)
        {
            EXPECT_TRUE(failed || !isInjected || isLostCompletion) << "succeeded although no request did";
        }
        else
        {
            EXPECT_EQ(failed, isInjected && fault != Fault::Expired400 && !isLostCompletion)
                << seen.size() << " requests";
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
};

TEST_P(FaultTest, LosesNothingAtAnyOperation)
{
    std::vector<std::thread> threads; // the gateway takes longer for a request than its client
    for (const Row& row : rows)
    {
        for (const bool isPersistent : {false, true})
        {
            threads.emplace_back([&, isPersistent] { failEachRequest(row, isPersistent); });
        }
    }
    for (std::thread& thread : threads)
    {
        thread.join();
    }
    for (const PendingUpload& upload : m_direct->pendingUploads())
    {
        EXPECT_FALSE(upload.key.starts_with("abort")) << upload.key;
    }
}

INSTANTIATE_TEST_SUITE_P(
    Faults, FaultTest, testing::ValuesIn(allFaults), [](const auto& row) { return std::string(name(row.param)); });

} // namespace

} // namespace storage::clients::s3::test
