#include "FaultProxy.hpp"
#include "FileSession.hpp"
#include "Gateway.hpp"
#include "awaitThreads.hpp"

#include <storage/clients/decorators/RetryingClient.hpp>

#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>

// Whole files as a host writes them, bare or with the decorators that work ahead of it: what happens when requests
// fail, and when another client changes the object between two of them.

namespace storage::clients::s3::test
{

namespace
{

using namespace clients::test;
using cloudprovider::CloudClient;

constexpr std::size_t smallSize = 100'000;
constexpr std::size_t largeSize = (7 << 20) + 1000; // is written in two parts and copied in one

/// Settings for the gateway behind a proxy, with fewer requests: each of them is interfered with once.
S3Settings largeReads(const GatewayBucket& bucket, const FaultProxy& proxy)
{
    S3Settings settings = bucket.settingsThrough(proxy.url());
    settings.partSize = 1 << 20;
    return settings;
}

class FileFaultTest : public testing::TestWithParam<std::tuple<bool, Fault>>
{
};

TEST_P(FileFaultTest, StoresWhatItReportsAsWrittenAndLeavesNoUpload)
{
    REQUIRE_GATEWAY();
    const auto [worksAhead, fault] = GetParam();
    const GatewayBucket bucket;
    S3Client direct(bucket.settings());
    const std::string whole(largeSize, 'a');
    const FileSession fresh{.truncate = fsp::ByteStreamTruncate::Discard, .bytes = whole};
    const FileSession patch{.reads = worksAhead, .offset = (6 << 20) + 100, .bytes = "the new content"};
    std::optional<std::string> now; // what is stored
    for (const auto& [patches, isPersistent] : {std::pair(false, false), {false, true}, {true, false}, {true, true}})
    {
        const FileSession& session = patches ? patch : fresh;
        const std::string before = patches ? whole : "old";
        std::string after = whole;
        after.replace(session.offset, session.bytes.size(), session.bytes);
        bool reached = true;
        for (std::size_t n = 1; reached && !HasFailure(); ++n)
        {
            SCOPED_TRACE(testing::Message() << name(fault) << (isPersistent ? " from request " : " at request ") << n
                                            << (patches ? " of a patch" : " of a new file"));
            awaitThreads(1); // none of the run before is left
            now == before ? void() : put(direct, "file", before);
            FaultProxy proxy(bucket.settings().endpoint);
            // An abort always gets through: an upload that is still open in the end was never aborted.
            proxy.setPlan(
                [plan = FaultProxy::injectAt(fault, n, isPersistent)](const Request& request, std::size_t number)
                {
                    const bool isAbort = request.method() == boost::beast::http::verb::delete_;
                    return isAbort ? Fault::None : plan(request, number);
                });
            std::atomic<RetryClock::Duration> slept{}; // takes no real time
            const RetryClock clock{[&] { return std::chrono::steady_clock::now() + slept.load(); },
                [&](RetryClock::Duration time) { slept = slept.load() + time; }, uniformJitter};
            const RetryPolicy policy{.budget = std::chrono::milliseconds(isPersistent ? 500 : 60'000)};
            const auto client =
                std::make_shared<RetryingClient>(std::make_shared<S3Client>(largeReads(bucket, proxy)), policy, clock);
            const auto result = session.run(worksAhead ? workingAhead(client) : client);

            const auto seen = proxy.seen();
            now = get(direct, "file");
            reached = seen.size() >= n;
            EXPECT_TRUE(before.starts_with(result.content)) << "wrong bytes were read";
            EXPECT_TRUE(now == after || (!result.succeeded && now == before))
                << "neither old nor new, or a write was lost";
            EXPECT_TRUE(result.succeeded || isPersistent) << "one failure was enough";
            EXPECT_TRUE(result.succeeded || proxy.hasInjected()) << "failed without a fault";
            const bool isUploadLost = std::any_of(seen.begin(), seen.end(),
                [](const auto& request)
                { return isAfter(request.fault) && request.head.target().ends_with("?uploads="); });
            for (const PendingUpload& upload : direct.pendingUploads())
            {
                EXPECT_TRUE(isUploadLost) << "an upload is left open";
                direct.abortMultipartUpload(upload.key, upload.uploadId);
            }
            EXPECT_TRUE(reached || n > (patches ? 7 : 4)) << "too few requests for an upload in parts";
        }
    }
}

// The other faults make no difference to a caller that retries, and each run moves 15 MiB.
INSTANTIATE_TEST_SUITE_P(Faults, FileFaultTest,
    testing::Values(std::tuple(false, Fault::ResetAfter), std::tuple(true, Fault::ResetBefore),
        std::tuple(true, Fault::ResetAfter), std::tuple(true, Fault::ErrorUnder200)),
    [](const auto& row)
    { return std::string(std::get<0>(row.param) ? "WorkingAhead" : "Bare") + name(std::get<1>(row.param)); });

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
    cloudprovider::PartInfo part{0, 0, theirs.size(), ""};
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
        const auto client = std::make_shared<S3Client>(largeReads(bucket, proxy));
        const auto [succeeded, content] = session.run(worksAhead ? workingAhead(client) : client);

        const std::size_t requests = proxy.seen().size();
        const std::string& seen = content.starts_with('o') ? before : theirs;
        std::string ours = seen;
        ours.resize(std::max(seen.size(), session.offset + session.bytes.size()));
        ours.replace(session.offset, session.bytes.size(), session.bytes);
        const std::string now = get(other, "file").value_or("");
        reached = requests >= n;
        EXPECT_TRUE(seen.starts_with(content)) << "what was read is a mixture";
        EXPECT_TRUE(!succeeded || content.size() == seen.size()) << "not all was read";
        EXPECT_EQ(now == theirs, reached && !succeeded) << "theirs was replaced, or ours was not stored";
        EXPECT_TRUE(now == theirs || now == ours) << "what is stored is a mixture";
        if (size == largeSize && reached && seen == before && succeeded)
        {
            // This endpoint cannot check and complete in one step. Even then nothing is mixed.
            EXPECT_EQ(n, requests) << "their version was replaced without an error";
        }
        EXPECT_TRUE(succeeded || n > 1) << "nothing of the old version had been seen yet";
        EXPECT_TRUE(reached || (succeeded && n > (size == largeSize ? 8 : 3))) << n << " requests";
    }
}

INSTANTIATE_TEST_SUITE_P(Changes, RaceTest,
    testing::Values(Race{"PutAhead", true, largeSize, overwrite}, Race{"DeleteAhead", true, largeSize, remove},
        Race{"PutInPartsAhead", true, smallSize, overwriteInParts},
        Race{"PutInParts", false, largeSize, overwriteInParts}, Race{"PutSmall", false, smallSize, overwrite},
        Race{"DeleteSmall", false, smallSize, remove}),
    [](const auto& row) { return std::string(row.param.name); });

} // namespace

} // namespace storage::clients::s3::test
