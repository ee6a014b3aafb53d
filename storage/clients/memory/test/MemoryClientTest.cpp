#include <storage/clients/memory/MemoryClient.hpp>

#include <boost/date_time/posix_time/posix_time.hpp>
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <sstream>

// The controls that no other test checks. The conformance suite checks the store.

namespace storage::clients
{

namespace
{

TEST(MemoryClientTest, ListsOpenUploadsWithTheirTagAndParts)
{
    MemoryClient store;
    const std::string id = store.createMultipartUpload("k", "t");
    std::istringstream bytes("abc");
    store.uploadPart("k", id, {4, 0, 3, ""}, bytes);
    ASSERT_EQ(store.openUploads().size(), 1U);
    const OpenUpload upload = store.openUploads().front();
    EXPECT_EQ(upload.key + ' ' + upload.uploadId + ' ' + upload.tag, "k " + id + " t");
    EXPECT_THAT(upload.parts, testing::ElementsAre(4U));
}

TEST(MemoryClientTest, TakesTimesFromItsClock)
{
    const boost::posix_time::ptime noon(boost::gregorian::date(2020, 1, 2), boost::posix_time::hours(12));
    MemoryClient store([&] { return noon; });
    store.put("k/", "");
    EXPECT_EQ(store.getObjectInfo("k/").lastModified, noon);
    std::string token;
    EXPECT_EQ(store.listObjects("", token, {"/", -1}).at(0).lastModified, noon) << "the group is an object, too";
}

} // namespace

} // namespace storage::clients
