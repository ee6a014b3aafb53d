#include "FaultyBucket.hpp"
#include "FileSession.hpp"
#include "awaitThreads.hpp"

#include <storage/clients/decorators/RetryingClient.hpp>

#include <algorithm>

namespace storage::clients::s3::test
{

namespace
{

using clients::test::awaitThreads;
using clients::test::isAfter;
using clients::test::Request;

const std::string fresh = "the new content";

/// Whole files, as a host writes them.
class FileFaultTest : public FaultyBucket, public testing::WithParamInterface<std::tuple<Ahead, Fault>>
{
protected:
    FileFaultTest()
        : FaultyBucket(std::get<1>(GetParam()))
    {
    }

    const Ahead ahead = std::get<0>(GetParam());
    const SmallParts smallParts;

    /// @return whether there was a request of that number
    bool strikeRequest(std::size_t n, bool forGood, bool patches)
    {
        std::string whole(2 * partSize + 1000, 'a');
        std::string before = "old";
        if (patches)
        {
            before = whole;
            whole.replace(partSize + 100, fresh.size(), fresh);
        }
        const bool reads = patches && readsAhead(ahead); // else it takes many requests that are all the same
        if (m_stored != before)
        {
            store("file", before);
        }
        FaultProxy proxy(m_bucket->settings().endpoint);
        VirtualTime time;
        const S3Settings settings = settingsFor(proxy);
        // An abort always gets through: what is left open in the end was never aborted.
        proxy.setPlan(
            [plan = strike(n, forGood)](const Request& request, std::size_t number)
            {
                const bool isAbort = request.method() == boost::beast::http::verb::delete_;
                return isAbort ? Fault::None : plan(request, number);
            });
        const RetryPolicy policy{.budget = forGood ? shortBudget : std::chrono::minutes(1)};
        const auto client =
            std::make_shared<RetryingClient>(std::make_shared<S3Client>(settings), policy, time.clock());
        auto session = std::make_unique<FileSession>(workingAhead(client, ahead));
        session->open(patches ? fsp::ByteStreamTruncate::Keep : fsp::ByteStreamTruncate::Discard);
        bool readAhead = false;
        if (reads)
        {
            EXPECT_TRUE(before.starts_with(session->readAll())) << "wrong bytes were read";
            readAhead = proxy.largestRange() > settings.partSize;
        }
        patches ? session->write(partSize + 100, fresh) : session->write(0, whole);
        session->close();
        const bool succeeded = session->succeeded();
        session.reset();
        const auto seen = proxy.seen();
        const bool reached = seen.size() >= n;
        const Contents& now = m_stored = stored("file");
        EXPECT_TRUE(now == whole || (!succeeded && now == before)) << "neither old nor new, or called written and not";
        EXPECT_TRUE(succeeded || forGood) << "one failure was enough";
        EXPECT_TRUE(succeeded || proxy.struck() > 0) << "failed untouched";
        EXPECT_TRUE(reached || readAhead == reads) << "expected larger ranges ahead";
        const auto losesAnUpload = [](const FaultProxy::Seen& request)
        { return isAfter(request.fault) && request.head.target().ends_with("?uploads="); };
        const bool isUploadLost = std::any_of(seen.begin(), seen.end(), losesAnUpload);
        for (const PendingUpload& upload : m_direct->pendingUploads())
        {
            EXPECT_TRUE(isUploadLost) << "an upload is left open";
            m_direct->abortMultipartUpload(upload.key, upload.uploadId);
        }
        return reached;
    }

private:
    Contents m_stored;
};

TEST_P(FileFaultTest, WritesWhatItReportsAsWrittenAndLeavesNothing)
{
    for (const bool patches : {false, true})
    {
        for (const bool forGood : {false, true})
        {
            bool reached = true;
            for (std::size_t n = 1; reached && !HasFailure(); ++n)
            {
                SCOPED_TRACE(testing::Message() << name(fault) << (forGood ? " from request " : " at request ") << n
                                                << (patches ? " of a patch" : " of a new file"));
                reached = strikeRequest(n, forGood, patches);
                EXPECT_TRUE(reached || n > (patches ? 7 : 5)) << "too few requests for three parts";
                awaitThreads(1);
            }
        }
    }
}

std::string nameOf(const testing::TestParamInfo<std::tuple<Ahead, Fault>>& row)
{
    return std::string(name(std::get<0>(row.param))) + name(std::get<1>(row.param));
}

// Other faults are no different to whoever repeats, and each run moves 30 MiB.
INSTANTIATE_TEST_SUITE_P(Faults, FileFaultTest,
    testing::Combine(testing::Values(Ahead::Nothing, Ahead::Both),
        testing::Values(Fault::ResetBefore, Fault::ResetAfter, Fault::ErrorUnder200)),
    nameOf);

// One alone is part of both: a single fault shows that it needs nothing of the other.
INSTANTIATE_TEST_SUITE_P(OneAlone, FileFaultTest,
    testing::Combine(testing::Values(Ahead::Uploads, Ahead::Reads), testing::Values(Fault::ResetAfter)), nameOf);

} // namespace

} // namespace storage::clients::s3::test
