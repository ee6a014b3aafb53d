#include "DiskBackedBuffer.hpp"
#include "OpenFileByteStream.hpp"
#include "StoreTest.hpp"

#include <storage/cloudprovider/OpenFileManager.hpp>

#include <limits>

// What streams and the registry of open files ask of the store, and what they promise when something fails. The bytes
// are the model's.

namespace storage::cloudprovider
{

namespace
{

/// The file "k".
class OpenFileTest : public StoreTest
{
protected:
    fsp::ByteStreamPtr openStored(const std::vector<std::size_t>& sizes, std::size_t partSize = 4)
    {
        setSizes(partSize, 100);
        sizes.empty() ? void() : putParts("k", "0123456789ab", sizes);
        auto stream = provider->openStream(iriOf("k"), editing);
        faults->takeCalls();
        return stream;
    }

    static void writeAt(fsp::ByteStream& stream, std::streamoff offset, const std::string& bytes)
    {
        stream.seek(offset, std::ios_base::beg);
        write(stream, bytes);
    }

    static std::string read(fsp::ByteStream& stream)
    {
        char byte = '?';
        stream.read(&byte, 1);
        return std::string(1, byte);
    }
};

TEST_F(OpenFileTest, SendsWhatChangedAndCopiesTheRest)
{
    using Writes = std::vector<std::pair<std::streamoff, std::string>>;
    // Sizes of the stored file's parts, none for a new file; what is written; calls of writing and closing together.
    const std::tuple<std::vector<std::size_t>, Writes, std::string> rows[] = {{{2}, {}, ""},
        {{2}, {{3, "d"}}, "getObjectRange k 0 0; putObject k"}, {{4, 4}, {}, ""},
        {{}, {{0, "abcdefghij"}},
            "createMultipartUpload k; uploadPart k; uploadPart k; uploadPart k; completeMultipartUpload k"},
        {{4, 4, 2}, {{5, "F"}, {4, "E"}},
            "getObjectRange k 4 7; createMultipartUpload k; uploadPart k; copyPart k; copyPart k; "
            "completeMultipartUpload k"},
        {{4}, {{4, "e"}, {0, "A"}}, // the first part is no longer all of it
            "createMultipartUpload k; uploadPart k; getObjectRange k 0 3; uploadPart k; completeMultipartUpload k"}};
    for (const auto& [parts, writes, calls] : rows)
    {
        store->remove("k");
        const auto stream = openStored(parts);
        for (const auto& [offset, bytes] : writes)
        {
            writeAt(*stream, offset, bytes);
        }
        stream->close();
        EXPECT_EQ(faults->takeCalls(), calls);
    }
}

TEST_F(OpenFileTest, KeepsClosedPartsUpToTheLimitOldestOutFirst)
{
    // Sizes of the parts, the limit, offsets read one after the other, and where the parts begin that were loaded.
    const std::tuple<std::vector<std::size_t>, std::size_t, std::vector<std::streamoff>, std::string> rows[] = {
        {{3, 3, 3}, 9, {0, 3, 6, 0, 3, 6}, "036"}, {{3, 3, 3}, 6, {0, 3, 6, 3, 6, 0}, "0360"},
        {{3, 3, 3}, 6, {0, 3, 0, 6, 0, 3}, "0363"}, {{3, 3, 3}, 0, {0, 0, 3, 3, 0}, "030"},
        {{2, 1}, 4, {0, 2, 0, 2}, "0202"}}; // the last one counts its capacity
    for (const auto& [sizes, limit, visited, expected] : rows)
    {
        putParts("k", std::string(9, 'x'), sizes);
        setSizes(3, limit);
        const auto stream = provider->openReadOnlyStream(iriOf("k"));
        faults->takeCalls();
        std::string loaded;
        for (const std::streamoff offset : visited)
        {
            stream->seek(offset, std::ios_base::beg);
            read(*stream);
            const std::string calls = faults->takeCalls();
            loaded += calls.empty() ? "" : calls.substr(std::string("getObjectRange k ").size(), 1);
        }
        EXPECT_EQ(loaded, expected) << "at most " << limit;
    }
}

TEST_F(OpenFileTest, SeeksKeepThePartTheyStayIn)
{
    const auto stream = openStored({4, 4});
    const std::string tag = store->getObjectParts("k").front().Tag;
    write(*stream, "AB");
    stream->seek(3, std::ios_base::beg);
    stream->seek(0, std::ios_base::beg);
    EXPECT_THAT(store->openUploads(), testing::IsEmpty());
    stream->seek(4, std::ios_base::beg);
    EXPECT_EQ(store->openUploads().at(0).tag, tag) << "an upload begins with the tag of the first part";
    constexpr auto least = std::numeric_limits<fsp::stream_offset>::min();
    EXPECT_EQ(outcome([&] { stream->seek(least, std::ios_base::cur); }), "ByteStreamSeekFailure: Unknown");
    EXPECT_EQ(stream->seek(least + 1, std::ios_base::cur), 0);
}

TEST_F(OpenFileTest, PartsOfNoSizeTakeNoBytes)
{
    const auto stream = openStored({6}, 0);
    EXPECT_EQ(write(*stream, "012345"), 6);
    EXPECT_EQ(outcome([&] { write(*stream, "6"); }), "ByteStreamWriteFailure: Unsupported: writing \"k\" at offset 6: "
                                                     "the file cannot grow because the part size is 0");
}

TEST_F(OpenFileTest, ReportsEarlierUploadsThatStillFailBeforeItWritesMore)
{
    const auto stream = openStored({});
    fail(Operation::UploadPart, 0, refused);
    getLogger().setEnabledSeverities(4 | 16);
    EXPECT_EQ(write(*stream, "012345678"), 9);
    EXPECT_THAT(takeLog(16), testing::SizeIs(1)) << "a failed upload is only logged";
    EXPECT_EQ(outcome([&] { write(*stream, "9"); }), "ByteStreamWriteFailure: PermissionDenied: why");
    EXPECT_EQ(stream->seek(0, std::ios_base::cur), 9);
    faults->clearFaults();
    writeAt(*stream, 12, "c");
    EXPECT_THAT(takeLog(4), testing::ElementsAre("Adding new part with index 3"));
    stream->close();
    EXPECT_EQ(store->get("k"), std::string("012345678\0\0\0c", 13));
}

TEST_F(OpenFileTest, FailedFlushesCanBeRepeated)
{
    using Sizes = std::vector<std::size_t>;
    for (const auto& [sizes, operation] :
        {std::pair(Sizes{4, 4}, Operation::CompleteMultipartUpload), std::pair(Sizes{4}, Operation::PutObject)})
    {
        auto stream = openStored(sizes);
        const auto held = globalOpenFileManager().open(
            iriOf("k"), fsp::ByteStreamCreate::MustExist, fsp::ByteStreamTruncate::Keep, faults);
        const auto reopen = [&] { stream = provider->openStream(iriOf("k"), editing); };
        write(*stream, "E");
        fail(operation, 1, refused);
        EXPECT_EQ(outcome([&] { stream->close(); }), "ByteStreamCloseFailure: PermissionDenied: why");
        reopen();
        stream->close();
        EXPECT_EQ(store->get("k")->front(), 'E') << "what is unchanged is copied by its tag in the stored object";
        faults->takeCalls();
        reopen();
        stream->close();
        EXPECT_EQ(faults->takeCalls(), sizes.size() == 1 ? "putObject k" : "") << "one part stays new";
        reopen();
        writeAt(*stream, static_cast<std::streamoff>(4 * sizes.size()) - 1, "F");
        stream->close();
        EXPECT_EQ(store->get("k")->back(), 'F') << "the tags are those of the upload that was completed";
    }
}

/// A buffer that fails when it is closed.
class ClosingFails : public DiskBackedBuffer
{
public:
    using DiskBackedBuffer::DiskBackedBuffer;
    void close() override
    {
        DiskBackedBuffer::close();
        throw PermissionDeniedException("first", "first");
    }

    struct Factory : BufferFactory
    {
        BufferPtr build(std::size_t size) override { return std::make_unique<ClosingFails>(size); }
    };
};

TEST_F(OpenFileTest, CloseRunsToItsEndAndReportsTheFirstFailure)
{
    const auto file = std::make_shared<OpenPartManager>(contextOf("k", std::make_unique<ClosingFails::Factory>()));
    const fsp::ByteStreamPtr stream =
        std::make_unique<OpenFileByteStream>(file, fsp::ByteStreamWritePosition::AtOffset);
    write(*stream, "x");
    fail(Operation::PutObject, 0, std::make_exception_ptr(ResourceInUseException("second")));
    EXPECT_EQ(outcome([&] { stream->close(); }), "ByteStreamCloseFailure: PermissionDenied: first");
    EXPECT_EQ(faults->takeCalls(), "putObject k") << "the flush was tried all the same";
    EXPECT_EQ(file.use_count(), 1);
    EXPECT_EQ(outcome([&] { stream->close(); }), "done");
    EXPECT_EQ(outcome([&] { read(*stream); }), "ByteStreamReadFailure: Unknown: the stream is closed");
    EXPECT_EQ(outcome([&] { write(*stream, "x"); }), "ByteStreamWriteFailure: Unknown: the stream is closed");
    const auto seek = [&] { stream->seek(0, std::ios_base::end); };
    EXPECT_EQ(outcome(seek), "ByteStreamSeekFailure: Unknown: the stream is closed");
}

TEST_F(OpenFileTest, DestructionClosesLogsAndSwallows)
{
    auto stream = openStored({});
    fail(Operation::PutObject, 1);
    stream.reset();
    EXPECT_THAT(
        takeLog(16), testing::AllOf(testing::SizeIs(2), testing::Each(testing::StartsWith("Exception caught: "))));
}

TEST_F(OpenFileTest, AnyReadAccessButNoneReads)
{
    openStored({4});
    EXPECT_EQ(
        read(*provider->openStream(iriOf("k"), {fsp::ByteStreamReadAccess{7}, {}, fsp::ByteStreamTruncate::Keep})),
        "0");
}

using OpenFileContextTest = StoreTest;

TEST_F(OpenFileContextTest, TakesSizesFromTheEnvironment)
{
    EXPECT_EQ(contextOf("k")->partSize, 5'242'880) << "unset";
    EXPECT_EQ(contextOf("k")->downloadedPartCacheLimit, 104'857'600);
    const std::tuple<const char*, std::uint64_t, unsigned> rows[] = {// value, size, what is logged
        {"", 5'242'880, 0}, {"1048576", 1'048'576, 0}, {" 12abc", 12, 0}, {"+7", 7, 0}, {"010", 10, 0}, {"0", 0, 0},
        {"-1", ~std::uint64_t{0}, 0}, {"18446744073709551616", 5'242'880, 1}, {"abc", 5'242'880, 1},
        {"1\xFF", 5'242'880, 1}};
    for (const auto& [value, size, logged] : rows)
    {
        setenv(partSizeVariable, value, 1);
        EXPECT_EQ(contextOf("k")->partSize, size) << value;
        EXPECT_THAT(takeLog(16),
            testing::AllOf(testing::SizeIs(logged), testing::Each(testing::StartsWith("Exception caught: "))))
            << value;
    }
    setenv(cacheVariable, "1", 1);
    EXPECT_EQ(contextOf("k")->downloadedPartCacheLimit, 1);
}

/// A registry of the test's own, and the file "d/k".
class OpenFileManagerTest : public StoreTest
{
protected:
    std::shared_ptr<OpenPartManager> open(std::uint32_t create, std::uint32_t truncate, const char* key = "d/k")
    {
        return manager.open(iriOf(key), fsp::ByteStreamCreate{create}, fsp::ByteStreamTruncate{truncate}, faults);
    }

    OpenFileManager manager;
};

TEST_F(OpenFileManagerTest, OpensAsAsked)
{
    const std::string notFound = "Cloud Resource not found";
    // Create and truncate, what comes of it when there is no such file, and the calls.
    const std::tuple<std::uint32_t, std::uint32_t, std::string, std::string> rows[] = {
        {0, 1, "done", "getObjectParts d/k"}, {2, 1, "done", "getObjectParts d/k"},
        {1, 1, notFound, "getObjectParts d/k"}, {1, 0, notFound, "getObjectInfo d/k"},
        {1, 2, notFound, "getObjectInfo d/k"}, {2, 3, "done", "validateObjectName k"}};
    for (const auto& [create, truncate, missing, calls] : rows)
    {
        SCOPED_TRACE(testing::Message() << "create " << create << ", truncate " << truncate);
        const auto file = [&, create = create, truncate = truncate] { return open(create, truncate); };
        store->put("d/k", "stored");
        EXPECT_EQ(file()->getFileSize(), truncate == 1 ? 6 : 0);
        EXPECT_EQ(faults->takeCalls(), calls);
        store->remove("d/k");
        EXPECT_EQ(outcome(file), missing);
        EXPECT_FALSE(manager.isOpen(iriOf("d/k"))) << "failed, or nobody holds it any more";
        faults->takeCalls();
    }
}

TEST_F(OpenFileManagerTest, IsOpenWhileAFileIsBeingOpened)
{
    bool first = true;
    const auto look = [&](Operation)
    {
        EXPECT_TRUE(manager.isOpen(iriOf("d/k"))); // would never return under the registry's lock
        if (std::exchange(first, false))
        {
            open(0, 0, "other");
            EXPECT_TRUE(manager.isOpen(iriOf("d/k"))) << "an open of another file sweeps what is stale only";
        }
    };
    faults->onCall = look;
    const auto file = open(0, 0);
    EXPECT_EQ(open(1, 1), file) << "an open file is shared, whatever is asked";
}

} // namespace

} // namespace storage::cloudprovider
