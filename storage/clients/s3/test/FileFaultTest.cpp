#include "FaultyBucket.hpp"
#include "FileSession.hpp"
#include "awaitThreads.hpp"

#include <storage/clients/decorators/RetryingClient.hpp>

#include <algorithm>

namespace storage::clients::s3::test
{

namespace
{

using clients::test::isAfter;
using clients::test::Request;

const std::string fresh = "the new content";
constexpr std::size_t patchOffset = (6 << 20) + 100; // what precedes it is enough for the store to copy

/// Whole files, as a host writes them, with the decorators that work ahead of it or without.
class FileFaultTest : public FaultyBucket, public testing::WithParamInterface<std::tuple<bool, Fault>>
{
protected:
    FileFaultTest()
        : FaultyBucket(std::get<1>(GetParam()))
    {
    }

    const bool worksAhead = std::get<0>(GetParam());

    /// @return whether there was a request of that number
    bool failRequest(std::size_t n, bool isPersistent, bool patches)
    {
        std::string whole((7 << 20) + 1000, 'a'); // two parts when it is new
        std::string before = "old";
        if (patches)
        {
            before = whole;
            whole.replace(patchOffset, fresh.size(), fresh);
        }
        if (m_stored != before)
        {
            store("file", before);
        }
        FaultProxy proxy(m_bucket->settings().endpoint);
        VirtualTime time;
        // An abort always gets through: an upload that is still open in the end was never aborted.
        proxy.setPlan(
            [plan = injectAt(n, isPersistent)](const Request& request, std::size_t number)
            {
                const bool isAbort = request.method() == boost::beast::http::verb::delete_;
                return isAbort ? Fault::None : plan(request, number);
            });
        const RetryPolicy policy{.budget = isPersistent ? shortBudget : std::chrono::minutes(1)};
        const auto client =
            std::make_shared<RetryingClient>(std::make_shared<S3Client>(settingsFor(proxy)), policy, time.clock());
        auto session = std::make_unique<FileSession>(worksAhead ? workingAhead(client) : client);
        session->open(patches ? fsp::ByteStreamTruncate::Keep : fsp::ByteStreamTruncate::Discard);
        if (patches && worksAhead)
        {
            EXPECT_TRUE(before.starts_with(session->readAll())) << "wrong bytes were read";
        }
        patches ? session->write(patchOffset, fresh) : session->write(0, whole);
        session->close();
        const bool succeeded = session->succeeded();
        session.reset();

        const auto seen = proxy.seen();
        const Contents& now = m_stored = stored("file");
        EXPECT_TRUE(now == whole || (!succeeded && now == before)) << "neither old nor new, or a write was lost";
        EXPECT_TRUE(succeeded || isPersistent) << "one failure was enough";
        EXPECT_TRUE(succeeded || proxy.injected() > 0) << "failed without a fault";
        const auto losesAnUpload = [](const FaultProxy::Seen& request)
        { return isAfter(request.fault) && request.head.target().ends_with("?uploads="); };
        const bool isUploadLost = std::any_of(seen.begin(), seen.end(), losesAnUpload);
        for (const PendingUpload& upload : m_direct->pendingUploads())
        {
            EXPECT_TRUE(isUploadLost) << "an upload is left open";
            m_direct->abortMultipartUpload(upload.key, upload.uploadId);
        }
        return seen.size() >= n;
    }

private:
    Contents m_stored;
};

TEST_P(FileFaultTest, StoresWhatItReportsAsWrittenAndLeavesNoUpload)
{
    for (const auto& [patches, isPersistent] : {std::pair(false, false), {false, true}, {true, false}, {true, true}})
    {
        bool reached = true;
        for (std::size_t n = 1; reached && !HasFailure(); ++n)
        {
            SCOPED_TRACE(testing::Message() << name(fault) << (isPersistent ? " from request " : " at request ") << n
                                            << (patches ? " of a patch" : " of a new file"));
            reached = failRequest(n, isPersistent, patches);
            EXPECT_TRUE(reached || n > (patches ? 7 : 4)) << "too few requests for an upload in parts";
            clients::test::awaitThreads(1);
        }
    }
}

// The other faults make no difference to a caller that retries, and each run moves 15 MiB.
INSTANTIATE_TEST_SUITE_P(Faults, FileFaultTest,
    testing::Values(std::tuple(false, Fault::ResetAfter), std::tuple(true, Fault::ResetBefore),
        std::tuple(true, Fault::ResetAfter), std::tuple(true, Fault::ErrorUnder200)),
    [](const auto& row)
    { return std::string(std::get<0>(row.param) ? "WorkingAhead" : "Bare") + name(std::get<1>(row.param)); });

} // namespace

} // namespace storage::clients::s3::test
