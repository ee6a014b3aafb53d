#include "OpenPartManager.hpp"
#include "StoreTest.hpp"

#include <cstring>

namespace storage::cloudprovider
{

namespace
{

using clients::Operation;
using testing::Contains;
using testing::ElementsAre;
using testing::IsEmpty;

class OpenPartManagerTest : public StoreTest
{
protected:
    /// Open "k", stored in these parts.
    std::unique_ptr<OpenPartManager> openStored(
        const std::vector<std::string>& contents, std::uint64_t partSize = 4, std::uint64_t cacheLimit = 100)
    {
        contents.size() == 1 ? store->put("k", contents.front()) : putParts("k", contents);
        auto parts = std::make_unique<OpenPartManager>(context(partSize, cacheLimit));
        parts->initPreserveExisting(true);
        store->takeCalls();
        return parts;
    }

    /// Write, with one stream's registration around it if asked.
    static void write(OpenPartManager& parts, std::size_t offset, const std::string& text)
    {
        std::unique_ptr<OpenPartDevice> device = parts.openPart(offset, true);
        OpenPartBuffer& part = *device->m_part;
        part.increaseSize(text.size(), device->m_partOffset);
        std::memcpy(part.data() + device->m_partOffset, text.data(), text.size());
        part.markModified();
        parts.closePart(std::move(device));
    }

    static void touch(OpenPartManager& parts, std::size_t offset) { parts.closePart(parts.openPart(offset, false)); }

    static std::string describe(const OpenPartDevice& device)
    {
        std::ostringstream out;
        out << device.m_part->info().Index << ":" << device.m_part->offset() << "+" << device.m_part->size() << "/"
            << device.m_part->capacity() << " " << device.m_part->localDataVersion() << " at " << device.m_partOffset;
        return out.str();
    }
};

TEST_F(OpenPartManagerTest, NewFileIsOneEmptyPart)
{
    OpenPartManager parts(context(5'242'880));
    EXPECT_EQ(parts.getFileSize(), 0);
    EXPECT_EQ(parts.openPart(0, false), nullptr);
    const auto device = parts.openPart(0, true);
    EXPECT_EQ(describe(*device), "0:0+0/5242880 NEW at 0");
    EXPECT_EQ(device->m_part->info().Tag, "");

    EXPECT_EQ(outcome([&] { parts.initPreserveExisting(true); }), "Cloud Resource not found");
    parts.initPreserveExisting(false);
    EXPECT_EQ(parts.getFileSize(), 0);
    fail(Operation::GetObjectParts, 1, std::make_exception_ptr(PermissionDeniedException("refused")));
    EXPECT_EQ(outcome([&] { parts.initPreserveExisting(false); }), "refused");
    EXPECT_EQ(device->m_part, parts.openPart(0, true)->m_part) << "the layout of a new file stays";
}

TEST_F(OpenPartManagerTest, GapIsFilledWithPartsOfThePartSize)
{
    OpenPartManager parts(context(5'242'880));
    getLogger().setEnabledSeverities(4);
    const auto device = parts.openPart(12'000'000, true);
    EXPECT_THAT(log.take(4), ElementsAre("Adding new part with index 1", "Adding new part with index 2"));
    EXPECT_EQ(describe(*device), "2:10485760+0/5242880 NEW at 1514240");
    EXPECT_EQ(describe(*parts.openPart(0, false)), "0:0+5242880/5242880 NEW at 0");
    EXPECT_EQ(describe(*parts.openPart(5'242'885, false)), "1:5242880+5242880/5242880 NEW at 5");
    EXPECT_EQ(parts.getFileSize(), 10'485'760);
    EXPECT_EQ(parts.openPart(12'000'000, true)->m_part, device->m_part);
    EXPECT_THAT(log.take(4), IsEmpty());
}

TEST_F(OpenPartManagerTest, FindsThePartOfAnOffset)
{
    struct Row
    {
        std::vector<std::string> contents;
        std::uint64_t partSize;
        std::vector<std::pair<std::size_t, std::size_t>> indexes; // offset, index
    };
    const std::string five(5, 'x');
    const Row rows[] = {{{five, five}, 5, {{0, 0}, {4, 0}, {5, 1}, {9, 1}, {10, 2}, {14, 2}, {15, 3}, {16, 3}}},
        {{"abcdefgh", "ij", "k"}, 4, {{7, 0}, {8, 1}, {9, 1}, {10, 2}, {13, 2}, {14, 3}, {18, 4}}},
        {{"abc", "defghi"}, 4, {{2, 0}, {3, 1}, {8, 1}, {9, 2}, {13, 3}}},
        {{"abc", "def"}, 0, {{5, 1}, {6, 2}, {1000, 2}}}};
    for (const Row& row : rows)
    {
        const auto parts = openStored(row.contents, row.partSize);
        for (const auto& [offset, index] : row.indexes)
        {
            EXPECT_EQ(parts->findPartIndex(offset), index) << row.partSize << ": " << offset;
        }
    }
}

TEST_F(OpenPartManagerTest, StoredBoundariesStayAndOnlyTheLastPartGrows)
{
    const auto small = openStored({"012", "345", "67"});
    EXPECT_EQ(describe(*small->openPart(1, true)), "0:0+3/3 CLOUD at 1");
    EXPECT_EQ(describe(*small->openPart(3, true)), "1:3+3/3 CLOUD at 0");
    EXPECT_EQ(describe(*small->openPart(9, true)), "2:6+2/4 CLOUD at 3");
    EXPECT_EQ(small->openPart(8, false), nullptr);
    const auto large = openStored({"012", "345678"});
    EXPECT_EQ(describe(*large->openPart(8, false)), "1:3+6/6 CLOUD at 5");
    EXPECT_EQ(describe(*large->openPart(9, true)), "2:9+0/4 NEW at 0");
    const auto empty = openStored({""});
    EXPECT_EQ(empty->getFileSize(), 0);
    EXPECT_EQ(describe(*empty->openPart(2, true)), "0:0+0/4 CLOUD at 2");
}

TEST_F(OpenPartManagerTest, PartsOfNoSizeTakeNoBytes)
{
    OpenPartManager parts(context(0));
    EXPECT_EQ(parts.findPartIndex(7), 1);
    EXPECT_EQ(parts.openPart(0, false), nullptr);
    try
    {
        parts.openPart(0, true);
        ADD_FAILURE();
    }
    catch (const UnsupportedOperationException& exception)
    {
        EXPECT_THAT(exception.detail().value(), testing::HasSubstr("\"k\""));
    }
    const auto stored = openStored({"012345"}, 0);
    EXPECT_EQ(describe(*stored->openPart(5, true)), "0:0+6/6 CLOUD at 5");
    EXPECT_THROW(stored->openPart(6, true), UnsupportedOperationException);
}

TEST_F(OpenPartManagerTest, KeepsClosedPartsUpToTheLimitOldestOutFirst)
{
    const auto calls = [&](OpenPartManager& parts, std::initializer_list<std::size_t> offsets)
    {
        for (const std::size_t offset : offsets)
        {
            touch(parts, offset);
        }
        std::string read;
        for (const std::string& call : store->takeCalls())
        {
            read += call.substr(std::strlen("getObjectRange 'k' "), 1);
        }
        return read;
    };
    const std::vector<std::string> contents{"012", "345", "678"};
    EXPECT_EQ(calls(*openStored(contents, 3, 9), {0, 3, 6, 0, 3, 6}), "036") << "all fit";
    EXPECT_EQ(calls(*openStored(contents, 3, 6), {0, 3, 0, 3}), "03") << "exactly as much as the limit";
    EXPECT_EQ(calls(*openStored(contents, 3, 6), {0, 3, 6, 3, 6, 0}), "0360") << "the oldest went";
    EXPECT_EQ(calls(*openStored(contents, 3, 6), {0, 3, 0, 6, 0, 3}), "0363") << "use makes it the newest";
    EXPECT_EQ(calls(*openStored(contents, 3, 0), {0, 0, 3, 3}), "0033") << "nothing is kept";
    EXPECT_EQ(calls(*openStored({"01", "2"}, 8, 8), {0, 2, 0, 2}), "0202") << "the last part counts its capacity";

    const auto inUse = openStored(contents, 3, 0);
    const auto device = inUse->openPart(0, false);
    EXPECT_EQ(calls(*inUse, {0, 0}), "0") << "another stream has it open";
}

struct FlushRow
{
    const char* name;
    std::vector<std::string> contents; // none: a new file
    std::vector<std::pair<std::size_t, std::string>> writes;
    Lines calls; // of writes and flush together
    std::string stored;
};

class FlushTest : public OpenPartManagerTest, public ::testing::WithParamInterface<FlushRow>
{
};

TEST_P(FlushTest, SendsWhatChangedAndCopiesTheRest)
{
    const FlushRow& row = GetParam();
    const auto parts = row.contents.empty() ? std::make_unique<OpenPartManager>(context(4)) : openStored(row.contents);
    parts->registerByteStream();
    parts->registerByteStream();
    for (const auto& [offset, text] : row.writes)
    {
        write(*parts, offset, text);
    }
    const auto before = store->keys();
    parts->unregisterByteStream();
    EXPECT_EQ(store->keys(), before) << "only the last stream writes the file";
    parts->unregisterByteStream();
    EXPECT_EQ(store->takeCalls(), row.calls);
    EXPECT_EQ(store->get("k"), row.stored);
    EXPECT_THAT(store->openUploads(), IsEmpty());
}

INSTANTIATE_TEST_SUITE_P(Files, FlushTest,
    ::testing::Values(FlushRow{"newAndUntouched", {}, {}, {"putObject 'k' 0"}, ""},
        FlushRow{"singleNew", {}, {{0, "ab"}, {1, "xyz"}}, {"putObject 'k' 4"}, "axyz"},
        FlushRow{"singleStoredUnmodified", {"ab"}, {}, {}, "ab"},
        FlushRow{"singleStoredModified", {"ab"}, {{3, "d"}}, {"getObjectRange 'k' 0 0", "putObject 'k' 4"},
            std::string("ab\0d", 4)},
        FlushRow{"storedEmptyModified", {""}, {{0, "d"}}, {"getObjectRange 'k' 0 0", "putObject 'k' 1"}, "d"},
        FlushRow{"multipartUnmodified", {"ab", "cd"}, {}, {}, "abcd"},
        FlushRow{"newOfThree", {}, {{0, "abcd"}, {4, "efgh"}, {8, "ij"}},
            {"createMultipartUpload 'k'", "uploadPart 'k' 1@4+4", "uploadPart 'k' 2@8+2", "uploadPart 'k' 0@0+4",
                "completeMultipartUpload 'k' 0@0+4 1@4+4 2@8+2"},
            "abcdefghij"},
        FlushRow{"middlePatched", {"abcd", "efgh", "ij"}, {{5, "F"}},
            {"getObjectRange 'k' 4 7", "createMultipartUpload 'k'", "uploadPart 'k' 1@4+4", "copyPart 'k' 0@0+4",
                "copyPart 'k' 2@8+2", "completeMultipartUpload 'k' 0@0+4 1@4+4 2@8+2"},
            "abcdeFghij"},
        FlushRow{"storedPartGrownOverAGap", {"abcd", "ef"}, {{9, "j"}},
            {"getObjectRange 'k' 4 5", "createMultipartUpload 'k'", "uploadPart 'k' 2@8+2", "uploadPart 'k' 1@4+4",
                "copyPart 'k' 0@0+4", "completeMultipartUpload 'k' 0@0+4 1@4+4 2@8+2"},
            std::string("abcdef\0\0\0j", 10)},
        FlushRow{"fullSinglePartExtended", {"abcd"}, {{4, "e"}},
            {"createMultipartUpload 'k'", "uploadPart 'k' 1@4+1", "copyPart 'k' 0@0+4",
                "completeMultipartUpload 'k' 0@0+4 1@4+1"},
            "abcde"},
        FlushRow{"fullSinglePartExtendedAndPatched", {"abcd"}, {{4, "e"}, {0, "A"}},
            {"createMultipartUpload 'k'", "uploadPart 'k' 1@4+1", "getObjectRange 'k' 0 3", "uploadPart 'k' 0@0+4",
                "completeMultipartUpload 'k' 0@0+4 1@4+1"},
            "Abcde"},
        FlushRow{"singlePartExtendedOverAGap", {"ab"}, {{5, "f"}},
            {"getObjectRange 'k' 0 0", "createMultipartUpload 'k'", "uploadPart 'k' 1@4+2", "uploadPart 'k' 0@0+4",
                "completeMultipartUpload 'k' 0@0+4 1@4+2"},
            std::string("ab\0\0\0f", 6)}),
    RowName());

TEST_F(OpenPartManagerTest, UploadBeginsWithTheTagOfTheFirstPart)
{
    const auto parts = openStored({"abcd", "efgh"});
    const std::string tag = store->getObjectParts("k").front().Tag;
    EXPECT_NE(tag, "");
    parts->registerByteStream();
    write(*parts, 4, "E");
    EXPECT_EQ(store->lastTagOfCreate, tag);
    parts->unregisterByteStream();
}

TEST_F(OpenPartManagerTest, SinglePartStaysNewAndIsPutAgain)
{
    OpenPartManager parts(context(4));
    parts.registerByteStream();
    write(parts, 0, "ab");
    fail(Operation::PutObject, 1, std::make_exception_ptr(PermissionDeniedException("refused")));
    EXPECT_EQ(outcome([&] { parts.unregisterByteStream(); }), "refused");
    EXPECT_FALSE(parts.openPart(0, false)->m_part->data() == nullptr);
    for (int i = 0; i < 2; ++i)
    {
        parts.registerByteStream();
        parts.unregisterByteStream();
    }
    EXPECT_THAT(store->takeCalls(), ElementsAre("putObject 'k' 2", "putObject 'k' 2", "putObject 'k' 2"));
}

TEST_F(OpenPartManagerTest, FailedFlushOfSeveralPartsCanBeRepeated)
{
    const auto parts = openStored({"abcd", "efgh", "ij"});
    parts->registerByteStream();
    write(*parts, 4, "E");
    fail(Operation::CompleteMultipartUpload, 1, std::make_exception_ptr(PermissionDeniedException("refused")));
    EXPECT_EQ(outcome([&] { parts->unregisterByteStream(); }), "refused");
    EXPECT_EQ(store->get("k"), "abcdefghij");
    parts->registerByteStream();
    EXPECT_NO_THROW(parts->unregisterByteStream()) << "unchanged parts are copied by their tags in the stored object";
    EXPECT_EQ(store->get("k"), "abcdEfghij");
}

TEST_F(OpenPartManagerTest, FlushedPartsOfSeveralAreTheStores)
{
    const auto parts = openStored({"abcd", "efgh"});
    const auto writeAndFlush = [&](std::size_t offset, const std::string& text)
    {
        parts->registerByteStream();
        if (!text.empty())
        {
            write(*parts, offset, text);
        }
        parts->unregisterByteStream();
        return store->takeCalls();
    };
    EXPECT_THAT(writeAndFlush(4, "E"),
        ElementsAre("getObjectRange 'k' 4 7", "createMultipartUpload 'k'", "uploadPart 'k' 1@4+4", "copyPart 'k' 0@0+4",
            "completeMultipartUpload 'k' 0@0+4 1@4+4"));
    EXPECT_THAT(writeAndFlush(0, ""), IsEmpty());
    EXPECT_THAT(writeAndFlush(0, "A"),
        ElementsAre("getObjectRange 'k' 0 3", "createMultipartUpload 'k'", "uploadPart 'k' 0@0+4", "copyPart 'k' 1@4+4",
            "completeMultipartUpload 'k' 0@0+4 1@4+4"));
    EXPECT_EQ(store->get("k"), "AbcdEfgh");
}

TEST_F(OpenPartManagerTest, FlushEndsQuietlyWhenNoUploadCouldBeOpened)
{
    const auto parts = openStored({"abcd", "efgh"});
    parts->registerByteStream();
    fail(Operation::CreateMultipartUpload);
    write(*parts, 4, "E");
    EXPECT_EQ(outcome([&] { parts->unregisterByteStream(); }), "done");
    EXPECT_THAT(store->takeCalls(), testing::Each(testing::Not(testing::HasSubstr("complete"))));
    EXPECT_EQ(store->get("k"), "abcdefgh");
}

TEST_F(OpenPartManagerTest, FailedCopyEndsTheFlushAndTheUploadIsAborted)
{
    auto parts = openStored({"abcd", "efgh"});
    parts->registerByteStream();
    write(*parts, 4, "E");
    fail(Operation::CopyPart, 0, std::make_exception_ptr(PermissionDeniedException("refused")));
    EXPECT_EQ(outcome([&] { parts->unregisterByteStream(); }), "refused");
    EXPECT_EQ(store->openUploads().size(), 1);
    store->takeCalls();
    parts.reset();
    EXPECT_THAT(store->takeCalls(), ElementsAre("abortMultipartUpload 'k'"));
    EXPECT_EQ(store->get("k"), "abcdefgh");
}

} // namespace

} // namespace storage::cloudprovider
