#include "MultipartUploadManager.hpp"
#include "StoreTest.hpp"

namespace storage::cloudprovider
{

namespace
{

using testing::ElementsAre;
using testing::StartsWith;

/// Uploads the object "k", whose part n has n + 1 zeros.
class MultipartUploadManagerTest : public StoreTest
{
protected:
    /// Queue a part; its record, with the tag, goes into `done`.
    BufferSharedPtr upload(std::size_t index)
    {
        const PartInfo info{index, 0, index + 1, ""};
        const BufferSharedPtr buffer = DiskBackedBufferFactory().build(info.Size);
        manager->asyncUploadPart([=] { return info; }, buffer,
            [=, this](const std::string& tag) {
                done.push_back({info.Index, info.Offset, info.Size, tag});
            });
        return buffer;
    }

    std::vector<PartInfo> done;
    std::unique_ptr<MultipartUploadManager> manager = std::make_unique<MultipartUploadManager>(contextOf("k"));
};

TEST_F(MultipartUploadManagerTest, AFurtherUploadKnowsThePartSentLast)
{
    upload(0);
    upload(1);
    manager->complete(done);
    EXPECT_EQ(store->get("k"), std::string(3, '\0'));
    upload(0);
    EXPECT_EQ(store->openUploads().at(0).tag, done.at(1).Tag);
}

TEST_F(MultipartUploadManagerTest, FailedPartGoesToTheBackOfTheQueue)
{
    fail(Operation::UploadPart, 1, refused);
    fail(Operation::UploadPart, 2, refused);
    EXPECT_FALSE(upload(0)->isOpen());
    upload(1); // part 0 fails again, and is behind part 1 now
    EXPECT_THAT(takeLog(16), ElementsAre(StartsWith("Exception caught: "), StartsWith("Exception caught: ")));
    manager->rerunFailedUploads();
    ASSERT_EQ(done.size(), 2);
    EXPECT_EQ(done.front().Index, 1);
    faults->takeCalls();
    manager->joinUploads();
    EXPECT_EQ(faults->takeCalls(), "");
}

TEST_F(MultipartUploadManagerTest, CancellingClearsTheQueueOfAnUploadOnly)
{
    fail(Operation::CreateMultipartUpload, 1, refused);
    upload(0);
    faults->takeCalls();
    manager->complete({});
    manager->cancel();
    EXPECT_EQ(faults->takeCalls(), "") << "there is none to end";
    manager->rerunFailedUploads();
    EXPECT_EQ(done.size(), 1) << "cancelling kept the queue";
    fail(Operation::UploadPart, 1, refused);
    upload(1);
    manager->cancel();
    manager->rerunFailedUploads();
    EXPECT_EQ(done.size(), 1);
}

TEST_F(MultipartUploadManagerTest, FailedCompletionIsAbortedInTheEnd)
{
    upload(0);
    fail(Operation::CompleteMultipartUpload, 1, refused);
    EXPECT_EQ(outcome([&] { manager->complete(done); }), "refused");
    fail(Operation::AbortMultipartUpload, 0, refused);
    EXPECT_EQ(outcome([&] { manager->cancel(); }), "refused");
    EXPECT_TRUE(manager->isUploading()) << "until the store has agreed";
    takeLog(0);
    manager.reset();
    EXPECT_THAT(takeLog(16), ElementsAre(StartsWith("Exception caught: "))) << "a destructor only logs";
}

TEST_F(MultipartUploadManagerTest, BytesThatCannotBeMappedFailTheFlush)
{
    const BufferSharedPtr buffer = DiskBackedBufferFactory().build(1);
    boost::filesystem::remove_all(*boost::filesystem::directory_iterator(temp.path()));
    manager->asyncUploadPart([] { return PartInfo{0, 0, 1, ""}; }, buffer, [](const std::string&) {});
    EXPECT_TRUE(manager->isUploading()) << "or the flush would take it for a file without changes";
    EXPECT_ANY_THROW(manager->joinUploads());
}

} // namespace

} // namespace storage::cloudprovider
