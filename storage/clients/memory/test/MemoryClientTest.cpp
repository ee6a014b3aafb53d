#include <storage/clients/memory/MemoryClient.hpp>

#include <storage/cloudprovider/CloudExceptions.hpp>

#include <boost/date_time/posix_time/posix_time.hpp>
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <sstream>

// The controls whose failure other tests would not notice. What the client does as a store is the conformance suite's.

namespace storage::clients
{

namespace
{

using namespace cloudprovider;
using testing::ElementsAre;

class MemoryClientTest : public testing::Test
{
protected:
    // Whether putting under the key fails.
    bool failsToPut(const std::string& key)
    {
        try
        {
            std::istringstream in("x");
            store.putObject(key, in, 1);
            return false;
        }
        catch (const UnknownErrorException& e)
        {
            EXPECT_EQ(e.detail(), "putObject of \"" + key + "\": injected fault");
            return true;
        }
    }

    MemoryClient store;
};

TEST_F(MemoryClientTest, FailsTheCallThatTheFaultNames)
{
    store.faults().inject({.call = 3});
    store.faults().inject({.operation = Operation::PutObject, .call = 3});
    EXPECT_FALSE(failsToPut("a"));
    store.getObjectInfo("a");
    EXPECT_TRUE(failsToPut("b")) << "third call of all";
    EXPECT_TRUE(failsToPut("c")) << "third put: the failed one was a call too";
    EXPECT_FALSE(failsToPut("d")) << "a fault strikes once";

    store.faults().inject({.operation = Operation::PutObject});
    store.faults().inject({.failure = std::make_exception_ptr(PermissionDeniedException("No"))});
    EXPECT_TRUE(failsToPut("e")) << "the first added of two faults is thrown";
    EXPECT_TRUE(failsToPut("f")) << "every put, until cleared";
    EXPECT_THROW(store.getObjectInfo("a"), PermissionDeniedException);
    store.faults().clearFaults();
    EXPECT_FALSE(failsToPut("g"));
    EXPECT_THAT(store.keys(), ElementsAre("a", "d", "g"));
}

TEST_F(MemoryClientTest, LosesTheAnswerAfterTheEffect)
{
    store.faults().inject({.call = 1,
        .moment = Fault::Moment::AfterEffect,
        .failure = std::make_exception_ptr(PermissionDeniedException("No"))});
    EXPECT_THROW(store.createMultipartUpload("k", "t"), PermissionDeniedException);
    ASSERT_EQ(store.openUploads().size(), 1U) << "the store has done it";
    EXPECT_EQ(store.openUploads()[0].key, "k");
    EXPECT_EQ(store.openUploads()[0].tag, "t");

    std::istringstream bytes("abc");
    store.uploadPart("k", store.openUploads()[0].uploadId, {4, 0, 3, ""}, bytes);
    EXPECT_THAT(store.openUploads()[0].parts, ElementsAre(4U));
}

TEST_F(MemoryClientTest, DeliversShortAndPagesAsItIsTold)
{
    for (const char* key : {"a", "b", "c", "d", "e"})
    {
        store.put(key, "0123456789");
    }
    store.setDownloadLimit(4);
    std::ostringstream out;
    store.getObjectRange("a", out, 5, 9);
    EXPECT_EQ(out.str(), "5678") << "without a word";
    store.setPageSize(2);
    store.setEmptyPages(2);
    std::vector<std::size_t> sizes;
    std::string token;
    do
    {
        sizes.push_back(store.listObjects("", token, {}).size());
    } while (!token.empty() && sizes.size() < 100);
    EXPECT_THAT(sizes, ElementsAre(0U, 0U, 2U, 0U, 0U, 2U, 0U, 0U, 1U));
}

TEST_F(MemoryClientTest, CountsCallsAndWhatTheyMoved)
{
    store.put("k", "0123456789"); // not counted
    const std::string id = store.createMultipartUpload("k", "");
    store.copyPart("k", id, store.getObjectParts("k").at(0));
    std::istringstream bytes("abc");
    store.uploadPart("k", id, {7, 0, 3, ""}, bytes);
    EXPECT_THROW(store.uploadPart("k", id, {8, 0, 5, ""}, bytes), UnknownErrorException) << "too short";
    std::ostringstream out;
    store.getObjectRange("k", out, 6, 9);
    out << ' ' << store.callSnapshot();
    EXPECT_EQ(out.str(), "6789 getObjectRange 1 (4 B), getObjectParts 1, createMultipartUpload 1, "
                         "uploadPart 2 (3 B; parts 7), copyPart 1 (10 B; parts 0)");
}

TEST(MemoryClientClockTest, StampsWithTheClockItIsGiven)
{
    const boost::posix_time::ptime noon(boost::gregorian::date(2020, 1, 2), boost::posix_time::hours(12));
    MemoryClient store([&] { return noon; });
    store.put("k/", "");
    EXPECT_EQ(store.getObjectInfo("k/").lastModified, noon);
    std::string token;
    EXPECT_EQ(store.listObjects("", token, {"/", -1}).at(0).lastModified, noon) << "a group has its own object's time";
}

} // namespace

} // namespace storage::clients
