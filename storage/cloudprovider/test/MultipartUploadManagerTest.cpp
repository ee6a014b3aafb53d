#include "MultipartUploadManager.hpp"
#include "StoreTest.hpp"
#include "TestBuffers.hpp"

namespace storage::cloudprovider
{

namespace
{

using clients::Operation;
using testing::ElementsAre;
using testing::IsEmpty;
using testing::SizeIs;
using testing::StartsWith;

const auto refused = std::make_exception_ptr(PermissionDeniedException("refused"));

class MultipartUploadManagerTest : public StoreTest
{
protected:
    /// Queue a part of 2 bytes; its tag goes into `tags`.
    void upload(std::size_t index, const std::string& content = "ab")
    {
        buffers.push_back(std::make_shared<TestBuffer>(content, faults));
        manager->asyncUploadPart([=] { return PartInfo{index, 2 * index, 2, ""}; }, buffers.back(), remember(index));
    }

    MultipartUploadManager::DoneCallback remember(std::size_t index)
    {
        return [this, index](const std::string& tag) { tags[index] = tag; };
    }

    std::vector<PartInfo> records() const
    {
        std::vector<PartInfo> parts;
        for (const auto& [index, tag] : tags)
        {
            parts.push_back({index, 2 * index, 2, tag});
        }
        return parts;
    }

    BufferFaults faults;
    std::vector<BufferSharedPtr> buffers;
    std::map<std::size_t, std::string> tags;
    std::unique_ptr<MultipartUploadManager> manager = std::make_unique<MultipartUploadManager>(context(2));
};

TEST_F(MultipartUploadManagerTest, SendsAndCopiesPartsIntoOneUpload)
{
    putParts("k", {"01", "23", "45"});
    const PartInfo stored = store->getObjectParts("k").at(1);
    manager->setLastTag("first");
    EXPECT_FALSE(manager->isUploading());
    store->takeCalls();
    upload(0);
    EXPECT_TRUE(manager->isUploading());
    manager->asyncReusePart(stored, remember(1));
    upload(2, "yz");
    EXPECT_EQ(tags[2], store->lastTagOfUpload);
    EXPECT_EQ(store->lastTagOfCreate, "first");
    manager->complete(records());
    EXPECT_FALSE(manager->isUploading());
    EXPECT_THAT(
        store->takeCalls(), ElementsAre("createMultipartUpload 'k'", "uploadPart 'k' 0@0+2", "copyPart 'k' 1@2+2",
                                "uploadPart 'k' 2@4+2", "completeMultipartUpload 'k' 0@0+2 1@2+2 2@4+2"));
    EXPECT_EQ(store->get("k"), "ab23yz");
    for (const BufferSharedPtr& buffer : buffers)
    {
        EXPECT_FALSE(buffer->isOpen());
    }

    const std::string lastTag = store->lastTagOfUpload;
    upload(0);
    EXPECT_EQ(store->lastTagOfCreate, lastTag) << "a further upload knows the part sent last";
    manager->cancel();
    EXPECT_FALSE(manager->isUploading());
    EXPECT_THAT(store->openUploads(), IsEmpty());
}

TEST_F(MultipartUploadManagerTest, FailedPartGoesToTheBackOfTheQueue)
{
    fail(Operation::UploadPart, 1, refused);
    fail(Operation::UploadPart, 2, refused);
    upload(0);
    EXPECT_FALSE(buffers[0]->isOpen());
    upload(1); // part 0 fails again, and is behind part 1 now
    EXPECT_THAT(log.take(16), ElementsAre(StartsWith("Exception caught: "), StartsWith("Exception caught: ")));
    EXPECT_THAT(tags, IsEmpty());
    manager->rerunFailedUploads();
    EXPECT_THAT(store->takeCalls(), ElementsAre("createMultipartUpload 'k'", "uploadPart 'k' 0@0+2",
                                        "uploadPart 'k' 0@0+2", "uploadPart 'k' 1@2+2", "uploadPart 'k' 0@0+2"));
    EXPECT_THAT(tags, SizeIs(2));
    manager->joinUploads();
    EXPECT_THAT(store->takeCalls(), IsEmpty());
}

TEST_F(MultipartUploadManagerTest, WithoutAnUploadNothingIsEnded)
{
    fail(Operation::CreateMultipartUpload, 1, refused);
    upload(0);
    store->takeCalls();
    manager->complete({});
    manager->cancel();
    EXPECT_THAT(store->takeCalls(), IsEmpty());
    manager->rerunFailedUploads();
    EXPECT_THAT(tags, SizeIs(1)) << "cancelling kept the queue";
}

TEST_F(MultipartUploadManagerTest, CancellingClearsTheQueue)
{
    upload(0);
    fail(Operation::UploadPart, 1, refused);
    upload(1);
    manager->cancel();
    EXPECT_THAT(store->openUploads(), IsEmpty());
    store->takeCalls();
    manager->rerunFailedUploads();
    EXPECT_THAT(store->takeCalls(), IsEmpty());
}

TEST_F(MultipartUploadManagerTest, FailedCompletionIsAbortedInTheEnd)
{
    upload(0);
    fail(Operation::CompleteMultipartUpload, 1, refused);
    EXPECT_EQ(outcome([&] { manager->complete(records()); }), "refused");
    EXPECT_TRUE(manager->isUploading());
    store->takeCalls();
    fail(Operation::AbortMultipartUpload, 1, refused);
    EXPECT_EQ(outcome([&] { manager->cancel(); }), "refused");
    EXPECT_TRUE(manager->isUploading()) << "until the store has agreed";
    manager.reset();
    EXPECT_THAT(store->takeCalls(), ElementsAre("abortMultipartUpload 'k'", "abortMultipartUpload 'k'"));
    EXPECT_THAT(store->openUploads(), IsEmpty());

    manager = std::make_unique<MultipartUploadManager>(context(2));
    upload(0);
    fail(Operation::AbortMultipartUpload, 1, refused);
    log.take(0);
    manager.reset();
    EXPECT_THAT(log.take(16), ElementsAre(StartsWith("Exception caught: ")));
}

TEST_F(MultipartUploadManagerTest, EmptyCallbackIsAFailureLikeAnyOther)
{
    manager->asyncReusePart({0, 0, 2, ""}, nullptr);
    manager->cancel();
    const auto buffer = std::make_shared<TestBuffer>("ab", faults);
    log.take(0);
    EXPECT_NO_THROW(manager->asyncUploadPart([] { return PartInfo{0, 0, 2, ""}; }, buffer, nullptr));
    EXPECT_THAT(log.take(16), ElementsAre(testing::HasSubstr("bad_function_call")));
    EXPECT_THROW(manager->rerunFailedUploads(), std::bad_function_call) << "and it stays queued";
    EXPECT_FALSE(buffer->isOpen());
}

TEST_F(MultipartUploadManagerTest, BytesThatCannotBeMappedFailTheFlush)
{
    faults.onOpen = std::make_exception_ptr(UnknownErrorException("no address space"));
    upload(0);
    EXPECT_TRUE(manager->isUploading()) << "or the flush would take it for a file without changes";
    EXPECT_EQ(outcome([&] { manager->joinUploads(); }), "no address space");
    faults.onOpen = nullptr;
    manager->joinUploads();
    manager->complete(records());
    EXPECT_EQ(store->get("k"), "ab");
}

TEST_F(MultipartUploadManagerTest, NewerBytesOfAPartReplaceThoseThatWait)
{
    fail(Operation::UploadPart, 1, refused);
    upload(0, "xx");
    upload(0, "yy");
    manager->joinUploads();
    manager->complete(records());
    EXPECT_EQ(store->get("k"), "yy");
    EXPECT_EQ(store->callSnapshot()[Operation::UploadPart].calls, 2);
}

} // namespace

} // namespace storage::cloudprovider
