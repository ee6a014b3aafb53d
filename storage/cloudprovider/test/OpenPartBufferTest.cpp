#include "OpenPartBuffer.hpp"
#include "StoreTest.hpp"
#include "TestBuffers.hpp"

namespace storage::cloudprovider
{

namespace
{

using clients::Operation;
using testing::ElementsAre;
using testing::IsEmpty;

class OpenPartBufferTest : public StoreTest
{
protected:
    OpenPartBufferSharedPtr part(
        PartInfo info, LocalDataVersion version, bool isLast = true, std::uint64_t partSize = 24) const
    {
        return std::make_shared<OpenPartBuffer>(
            std::move(info), version, isLast, context(partSize, 0, std::make_unique<TestBufferFactory>(faults)));
    }

    static std::string bytes(OpenPartBuffer& part)
    {
        const OpenPartBuffer::View view = part.view();
        return view.data == nullptr ? "none" : std::string(view.data, view.size);
    }

    BufferFaults faults;
};

TEST_F(OpenPartBufferTest, PrintsStatesAndRecords)
{
    std::ostringstream out;
    out << PartInfo{3, 20, 5, "t\"g"} << ' ' << LocalDataVersion{0} << ' ' << LocalDataVersion{1} << ' '
        << LocalDataVersion{2} << ' ' << LocalDataVersion{3} << ' ' << LocalDataVersion{4};
    EXPECT_EQ(out.str(), "PartInfo{Index=3,Offset=20,Size=5,Tag=\"t\"g\"} CLOUD NEW SCHEDULED_UPLOAD INVALID ");
}

TEST_F(OpenPartBufferTest, OnlyTheLastPartMayGrowToThePartSize)
{
    const std::tuple<std::size_t, bool, std::size_t> rows[] = {
        {10, true, 24}, {24, true, 24}, {25, true, 25}, {10, false, 10}, {0, true, 24}, {0, false, 0}};
    for (const auto& [size, isLast, capacity] : rows)
    {
        EXPECT_EQ(part({0, 0, size, ""}, LocalDataVersion::CLOUD, isLast)->capacity(), capacity) << size << isLast;
    }
}

TEST_F(OpenPartBufferTest, GrowsWithinItsCapacityAndNeverShrinks)
{
    constexpr std::size_t atEnd = ~std::size_t{0};
    const std::tuple<std::size_t, std::size_t, std::size_t> rows[] = {// amount, offset, new size; from 20 of 24
        {10, 0, 20}, {3, 19, 22}, {10, 15, 24}, {4, 20, 24}, {1, 23, 24}, {5, 100, 24}, {0, 0, 20}, {3, atEnd, 23},
        {4, atEnd, 24}, {100, atEnd, 24}, {0, atEnd, 20}};
    for (const auto& [amount, offset, size] : rows)
    {
        const auto grown = part({0, 0, 20, ""}, LocalDataVersion::NEW);
        EXPECT_EQ(offset == atEnd ? grown->increaseSize(amount) : grown->increaseSize(amount, offset), 20);
        EXPECT_EQ(grown->size(), size) << amount << " at " << offset;
        grown->increaseSizeToMax();
        EXPECT_EQ(grown->size(), 24);
    }
    const auto roomy = part({0, 0, 20, ""}, LocalDataVersion::NEW, true, 1000);
    EXPECT_EQ(roomy->increaseSize(10, 15), 20);
    EXPECT_EQ(roomy->size(), 25);
}

TEST_F(OpenPartBufferTest, AsksTheStoreForItsRange)
{
    store->put("k", "0123456789");
    const std::tuple<PartInfo, bool, std::string, const char*> rows[] = {
        {{0, 0, 10, "t"}, true, "0123456789", "getObjectRange 'k' 0 0"},
        {{0, 0, 10, "t"}, false, "0123456789", "getObjectRange 'k' 0 9"},
        {{1, 4, 3, "t"}, false, "456", "getObjectRange 'k' 4 6"},
        {{2, 10, 0, "t"}, false, "", "getObjectRange 'k' 10 9"}};
    for (const auto& [info, isSingle, content, call] : rows)
    {
        const auto stored = part(info, LocalDataVersion::CLOUD);
        stored->setSinglePartFile(isSingle);
        EXPECT_EQ(bytes(*stored), "none");
        EXPECT_EQ(outcome([&] { stored->open(); }), "done");
        EXPECT_THAT(store->takeCalls(), ElementsAre(call));
        EXPECT_EQ(bytes(*stored), content);
    }
    store->put("k", "");
    const auto empty = part({0, 0, 0, ""}, LocalDataVersion::CLOUD);
    empty->setSinglePartFile(true);
    EXPECT_EQ(outcome([&] { empty->open(); }), "done") << "an object without bytes";
}

TEST_F(OpenPartBufferTest, FailedLoadingLeavesItClosedAndCanBeRepeated)
{
    store->put("k", "0123456789");
    const auto stored = part({0, 0, 10, ""}, LocalDataVersion::CLOUD);
    stored->setSinglePartFile(true);
    const auto failing = [&](const std::string& expected)
    {
        EXPECT_EQ(outcome([&] { stored->open(); }), expected);
        EXPECT_FALSE(stored->isOpen());
        EXPECT_EQ(bytes(*stored), "none");
    };
    fail(Operation::GetObjectRange, 1, std::make_exception_ptr(ResourceInUseException()));
    failing("Resource is in use");
    faults.onBuild = std::make_exception_ptr(UnknownErrorException("full"));
    failing("full");
    faults = {};
    store->setDownloadLimit(9);
    failing("downloading part 0 of \"k\": expected 10 bytes, the store sent 9");
    store->setDownloadLimit();
    store->put("k", "0123456789a"); // longer than the part now
    EXPECT_ANY_THROW(stored->open());
    EXPECT_FALSE(stored->isOpen());
    store->put("k", "abcdefghij");
    stored->open();
    EXPECT_EQ(bytes(*stored), "abcdefghij");
}

TEST_F(OpenPartBufferTest, KeepsItsBytesWhileClosedAndFreesOnlyWhatTheStoreHas)
{
    store->put("k", "0123456789");
    const auto stored = part({0, 0, 10, ""}, LocalDataVersion::CLOUD);
    stored->setSinglePartFile(true);
    stored->open();
    stored->open();
    EXPECT_EQ(store->takeCalls().size(), 1);
    stored->close();
    EXPECT_TRUE(stored->isOpen());
    stored->discardIfUnmodified();
    EXPECT_EQ(bytes(*stored), "0123456789") << "in use";
    stored->data()[0] = 'X';
    stored->close();
    EXPECT_EQ(stored->data(), nullptr);
    stored->open();
    EXPECT_EQ(bytes(*stored), "X123456789") << "kept";
    for (const bool isScheduled : {false, true})
    {
        stored->markModified();
        if (isScheduled)
        {
            EXPECT_EQ(stored->markUploading().Size, 10);
        }
        stored->close();
        stored->discardIfUnmodified();
        stored->open();
        EXPECT_EQ(bytes(*stored), "X123456789") << "not in the store";
    }
    stored->markUploaded();
    stored->close();
    stored->discardIfUnmodified();
    EXPECT_THAT(store->takeCalls(), IsEmpty());
    stored->open();
    EXPECT_EQ(bytes(*stored), "0123456789") << "fetched anew";
}

TEST_F(OpenPartBufferTest, MarkUploadedLeavesWhatChangedMeanwhile)
{
    const auto changed = part({0, 0, 4, "t"}, LocalDataVersion::CLOUD);
    EXPECT_EQ(changed->markUploading().Tag, "t");
    EXPECT_EQ(changed->localDataVersion(), LocalDataVersion::SCHEDULED_UPLOAD);
    changed->markModified();
    changed->markUploaded();
    EXPECT_EQ(changed->localDataVersion(), LocalDataVersion::NEW);
    const auto invalid = part({0, 0, 4, "t"}, LocalDataVersion::INVALID);
    invalid->markUploaded();
    EXPECT_EQ(invalid->localDataVersion(), LocalDataVersion::CLOUD);
}

TEST_F(OpenPartBufferTest, OpensForUploadOnlyWhatIsNew)
{
    const auto stored = part({0, 0, 4, ""}, LocalDataVersion::CLOUD);
    EXPECT_FALSE(stored->openIfModified());
    EXPECT_FALSE(stored->isOpen());
    const auto blank = part({0, 0, 4, ""}, LocalDataVersion::NEW);
    faults.onBuild = std::make_exception_ptr(UnknownErrorException("full"));
    EXPECT_EQ(outcome([&] { blank->openIfModified(); }), "full");
    EXPECT_FALSE(blank->isOpen());
    faults = {};
    EXPECT_TRUE(blank->openIfModified());
    EXPECT_TRUE(blank->isOpen());
    EXPECT_EQ(bytes(*blank), std::string(4, '\0'));
    EXPECT_THAT(store->takeCalls(), IsEmpty());
}

} // namespace

} // namespace storage::cloudprovider
