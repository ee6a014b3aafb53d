#include "OpenPartBuffer.hpp"
#include "StoreTest.hpp"

namespace storage::cloudprovider
{

namespace
{

using OpenPartBufferTest = StoreTest;

TEST_F(OpenPartBufferTest, PrintsStatesAndRecords)
{
    std::ostringstream out;
    out << PartInfo{3, 20, 5, "t\"g"} << ' ' << LocalDataVersion{0} << ' ' << LocalDataVersion{1} << ' '
        << LocalDataVersion{2} << ' ' << LocalDataVersion{3} << ' ' << LocalDataVersion{4};
    EXPECT_EQ(out.str(), "PartInfo{Index=3,Offset=20,Size=5,Tag=\"t\"g\"} CLOUD NEW SCHEDULED_UPLOAD INVALID ");
}

TEST_F(OpenPartBufferTest, FreesOnlyWhatNobodyUsesAndTheStoreHas)
{
    store->put("k", "0123456789");
    OpenPartBuffer part({0, 0, 10, "t"}, LocalDataVersion::CLOUD, true, contextOf("k"));
    const auto bytesAfterDiscarding = [&]
    {
        part.discardIfUnmodified();
        part.open();
        const OpenPartBuffer::View view = part.view();
        const std::string bytes(view.data, view.size);
        part.close();
        return bytes;
    };
    faults->setDownloadLimit(9);
    EXPECT_EQ(outcome([&] { part.open(); }), "downloading part 0 of \"k\": expected 10 bytes, the store sent 9");
    EXPECT_FALSE(part.isOpen());
    faults->setDownloadLimit();
    part.open();
    part.data()[0] = 'X';
    EXPECT_EQ(bytesAfterDiscarding(), "X123456789") << "in use";
    part.close();
    EXPECT_EQ(part.data(), nullptr);
    part.markModified();
    EXPECT_EQ(bytesAfterDiscarding(), "X123456789") << "new";
    EXPECT_EQ(part.markUploading().Tag, "t");
    EXPECT_EQ(bytesAfterDiscarding(), "X123456789") << "being uploaded";
    part.markModified();
    part.markUploaded();
    EXPECT_EQ(bytesAfterDiscarding(), "X123456789") << "changed while it was uploaded";
    part.markUploading();
    part.markUploaded();
    EXPECT_EQ(bytesAfterDiscarding(), "0123456789") << "fetched anew";
    EXPECT_FALSE(part.openIfModified());
    store->put("k", "0123456789a"); // longer than the part now
    part.setSinglePartFile(true);
    part.discardIfUnmodified();
    EXPECT_ANY_THROW(part.open());
}

TEST_F(OpenPartBufferTest, WithoutRoomForItItStaysClosed)
{
    OpenPartBuffer part({0, 0, 4, ""}, LocalDataVersion::NEW, true, contextOf("k"));
    const std::string usual = temp.path();
    setenv("TMPDIR", (usual + "/no").c_str(), 1);
    EXPECT_THROW(part.openIfModified(), UnknownErrorException);
    EXPECT_FALSE(part.isOpen());
    setenv("TMPDIR", usual.c_str(), 1);
    EXPECT_TRUE(part.openIfModified());
    EXPECT_EQ(std::string(part.data(), 4), std::string(4, '\0'));
}

} // namespace

} // namespace storage::cloudprovider
