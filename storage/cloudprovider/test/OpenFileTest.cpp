#include "ProviderTest.hpp"

#include "DiskBackedBuffer.hpp"
#include "OpenFileByteStream.hpp"
#include "OpenPartManager.hpp"
#include "TemporaryFileException.hpp"

#include <storage/cloudprovider/TemporaryFiles.hpp>

#include <csignal>
#include <fstream>
#include <limits>

#include <fcntl.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/wait.h>

// What the models of files do not show: which calls an open file makes, what it keeps on local disk, and what the parts
// of the open-file layer do when something fails.

namespace storage::cloudprovider
{

namespace
{

class OpenFileTest : public ProviderTest
{
protected:
    fsp::ByteStreamPtr openStored(const std::vector<std::size_t>& parts, std::size_t partSize, std::size_t cache = 100)
    {
        setSizes(partSize, cache);
        store->remove("k");
        if (!parts.empty())
        {
            putParts("k", "0123456789ab", parts);
        }
        auto stream = provider->openStream(iriOf("k"), editing);
        faults->takeCalls();
        return stream;
    }
};

TEST_F(OpenFileTest, UploadsWhatChangedAndCopiesTheRest)
{
    using Writes = std::vector<std::pair<std::size_t, std::string>>;
    // Sizes of the stored parts, none for a new file; what is written; the calls of writing and closing.
    const std::tuple<std::vector<std::size_t>, Writes, std::string> rows[] = {{{2}, {}, ""}, {{4, 4}, {}, ""},
        {{2}, {{3, "d"}}, "getObjectRange k 0 0; putObject k"},
        {{}, {{0, "abcdefghij"}},
            "createMultipartUpload k; uploadPart k 1+4; uploadPart k 2+2; uploadPart k 0+4; completeMultipartUpload k"},
        {{6, 5, 1}, {{7, "F"}, {6, "E"}},
            "getObjectRange k 6 10; createMultipartUpload k; uploadPart k 1+5; copyPart k 0+6; copyPart k 2+1; "
            "completeMultipartUpload k"},
        {{4}, {{4, "e"}, {0, "A"}}, // the first part is no longer the whole object
            "createMultipartUpload k; uploadPart k 1+1; getObjectRange k 0 3; uploadPart k 0+4; "
            "completeMultipartUpload k"}};
    for (const auto& [parts, writes, calls] : rows)
    {
        const auto stream = openStored(parts, 4);
        for (const auto& [offset, bytes] : writes)
        {
            writeAt(*stream, offset, bytes);
        }
        stream->close();
        EXPECT_EQ(faults->takeCalls(), calls);
    }
}

TEST_F(OpenFileTest, SendsNothingOnceItIsAbandoned)
{
    const auto stream = openStored({4, 4}, 4);
    write(*stream, "news");
    stream->abandon();
    stream->close();
    EXPECT_EQ(faults->takeCalls(), "getObjectRange k 0 3");
}

TEST_F(OpenFileTest, KeepsClosedPartsUpToTheLimitAndEvictsTheOldest)
{
    // Sizes of the parts, the limit, the offsets that are read, and the first bytes of the ranges that are loaded.
    const std::tuple<std::vector<std::size_t>, std::size_t, std::vector<std::size_t>, std::string> rows[] = {
        {{3, 3, 3}, 9, {0, 3, 6, 0, 3, 6}, "036"}, {{3, 3, 3}, 6, {0, 3, 6, 3, 6, 0}, "0360"},
        {{3, 3, 3}, 6, {0, 3, 0, 6, 0, 3}, "0363"}, {{3, 3, 3}, 0, {0, 0, 3, 3, 0}, "030"},
        {{2, 1}, 4, {0, 2, 0, 2}, "0202"}, // the capacity of the last part counts
        {{1, 3}, 9, {0, 1}, "01"}};        // the range of the first byte means the whole object
    for (const auto& [parts, limit, offsets, expected] : rows)
    {
        const auto stream = openStored(parts, 3, limit);
        std::string loaded;
        for (const std::size_t offset : offsets)
        {
            EXPECT_EQ(readAt(*stream, offset, 1), std::to_string(offset));
            const std::string calls = faults->takeCalls();
            loaded += calls.empty() ? "" : calls.substr(std::strlen("getObjectRange k "), 1);
        }
        EXPECT_EQ(loaded, expected) << "limit " << limit;
    }
}

TEST_F(OpenFileTest, SeeksUploadThePartThatTheyLeave)
{
    const auto stream = openStored({4, 4}, 4);
    write(*stream, "AB");
    stream->seek(3, std::ios_base::beg);
    EXPECT_THAT(store->openUploads(), IsEmpty());
    stream->seek(4, std::ios_base::beg);
    EXPECT_EQ(store->openUploads().at(0).tag, store->getObjectParts("k").at(0).Tag);
    EXPECT_THAT(store->openUploads().at(0).parts, testing::ElementsAre(0U));
    stream->seek(0, std::ios_base::end);
    EXPECT_EQ(stream->read(nullptr, 1), -1);
    EXPECT_EQ(write(*stream, "x"), -1) << "after a read has found the end, only a seek allows writes";
    EXPECT_EQ(stream->seek(-9, std::ios_base::cur), 0);
    EXPECT_EQ(write(*stream, "x"), 1);
    EXPECT_EQ(readAt(*stream, 0, 3), "xB2");
}

TEST_F(OpenFileTest, RejectsWhatItCannotDo)
{
    auto stream = openStored({6}, 0);
    EXPECT_EQ(write(*stream, "012345"), 6);
    EXPECT_EQ(outcome([&] { write(*stream, "6"); }), "ByteStreamWriteFailure: Unsupported: writing \"k\" at offset 6: "
                                                     "the file cannot grow because the part size is 0");
    constexpr auto min = std::numeric_limits<fsp::stream_offset>::min();
    EXPECT_EQ(outcome([&] { stream->seek(min, std::ios_base::cur); }), "ByteStreamSeekFailure: Unknown");
    constexpr auto max = std::numeric_limits<fsp::stream_offset>::max();
    EXPECT_EQ(stream->seek(max - 6, std::ios_base::cur), max);
    EXPECT_EQ(reasonOf([&] { stream->seek(1, std::ios_base::cur); }), "Unsupported") << "beyond 2^63-1";
    EXPECT_EQ(stream->seek(-max, std::ios_base::cur), 0) << "a refused seek leaves the stream where it was";
    fail(Operation::PutObject);
    EXPECT_EQ(outcome([&] { stream->close(); }), "ByteStreamCloseFailure: PermissionDenied: why");
    EXPECT_EQ(outcome([&] { stream->close(); }), "done") << "a second close does nothing";
    const std::string closed = "Unknown: the stream is closed";
    EXPECT_EQ(outcome([&] { stream->seek(0, std::ios_base::end); }), "ByteStreamSeekFailure: " + closed);
    EXPECT_EQ(outcome([&] { stream->read(nullptr, 1); }), "ByteStreamReadFailure: " + closed);
    EXPECT_EQ(outcome([&] { write(*stream, "x"); }), "ByteStreamWriteFailure: " + closed);
    openStored({}, 4).reset(); // the flush fails, and the destructor must not throw
    faults->clearFaults();
    stream = openStored({4}, 4);
    const auto unstorable = provider->openStream(iriOf(std::string(600, 'a') + "/" + std::string(600, 'b')), editing);
    EXPECT_EQ(write(*unstorable, "0123456789"), 10);
    EXPECT_EQ(reasonOf([&] { unstorable->close(); }), "InvalidLocation") << "a key that the store cannot keep";
    EXPECT_EQ(reasonOf([&] { writeAt(*stream, 40'004, "x"); }), "Unsupported") << "a gap of more than 10,000 parts";
    EXPECT_EQ(stream->seek(0, std::ios_base::end), 4) << "refused before the first part is added";
}

TEST_F(OpenFileTest, RejectsPartsThatAClientNumbersWrongly)
{
    struct WrongClient : clients::MemoryClient
    {
        std::vector<PartInfo> getObjectParts(const std::string& key) override
        {
            return {{0, 0, 4, ""}, {key == "index" ? 2U : 1U, key == "offset" ? 5U : 4U, 4, ""}};
        }
    };
    const auto wrong = buildCloudProvider(std::make_shared<WrongClient>(), {}, false);
    for (const char* key : {"index", "offset"})
    {
        EXPECT_EQ(reasonOf([&] { wrong->openReadOnlyStream(iriOf(key)); }), "Unsupported");
    }
}

TEST_F(OpenFileTest, TakesSizesFromTheEnvironment)
{
    EXPECT_EQ(contextOf("k")->partSize, 5'242'880) << "unset";
    EXPECT_EQ(contextOf("k")->downloadedPartCacheLimit, 104'857'600);
    setLog(16);
    const std::tuple<const char*, std::uint64_t, unsigned> rows[] = {{"", 5'242'880, 0}, {" 12abc", 12, 0},
        {"010", 10, 0}, {"0", 0, 0}, {"18446744073709551616", 5'242'880, 1}, {"abc", 5'242'880, 1},
        {"12\xff", 5'242'880, 1}}; // the last one is not UTF-8
    for (const auto& [value, size, logged] : rows)
    {
        setenv(partSizeVariable, value, 1);
        EXPECT_EQ(contextOf("k")->partSize, size) << value;
        EXPECT_THAT(takeLog(), SizeIs(logged)) << value;
    }
    setenv(cacheVariable, "1", 1);
    EXPECT_EQ(contextOf("k")->downloadedPartCacheLimit, 1);
}

TEST_F(OpenFileTest, PartsStayClosedIfTheyCannotBeLoaded)
{
    store->put("k", "0123456789");
    OpenPartBuffer part({0, 0, 9, ""}, LocalDataVersion::CLOUD, true, contextOf("k"));
    part.setSinglePartFile(true);
    EXPECT_ANY_THROW(part.open()) << "the store sends more bytes than the part has";
    faults->setDownloadLimit(5);
    EXPECT_EQ(outcome([&] { part.open(); }), "downloading part 0 of \"k\": expected 9 bytes, the store sent 5");
    EXPECT_FALSE(part.isOpen());
    part.markModified();
    const auto reader = provider->openReadOnlyStream(iriOf("k"));
    unsetenv("TMPDIR");
    setenv("TEMP", "/nowhere", 1); // also names the folder
    EXPECT_THROW(part.openIfModified(), UnknownErrorException);
    EXPECT_FALSE(part.isOpen());
    const std::string why = "creating a temporary file in /nowhere: Not a directory; TMPDIR can name another folder";
    EXPECT_EQ(outcome([&] { readAt(*reader, 0, 1); }), "ByteStreamReadFailure: Unknown: " + why);
    unsetenv("TEMP");
}

/// A buffer that shares a limited room with others, and whose close() may always fail but keeps the bytes.
struct Fragile : public DiskBackedBuffer
{
    using DiskBackedBuffer::DiskBackedBuffer;
    ~Fragile() override { s_room += reserved; }
    void close() override
    {
        DiskBackedBuffer::close();
        s_closes ? void() : throw UnknownErrorException("not closed");
    }
    void reserve(std::size_t size) override
    {
        size > s_room + reserved ? throw TemporaryFileException("making room", ENOSPC) : void();
        s_room -= size - std::exchange(reserved, size);
    }

    std::size_t reserved = 0;
    static inline std::size_t s_room = 0; // bytes that are free
    static inline bool s_closes = false;
};

class FragileBufferTest : public OpenFileTest
{
protected:
    struct Factory : public BufferFactory
    {
        BufferPtr build(std::size_t size) override { return std::make_unique<Fragile>(size); }
    };

    std::shared_ptr<OpenFileByteStream> open(const char* key) const
    {
        const auto manager = std::make_shared<OpenPartManager>(
            std::make_shared<OpenFileContext>(iriOf(key), faults, std::make_unique<Factory>()));
        manager->initPreserveExisting(true);
        return std::make_shared<OpenFileByteStream>(manager, fsp::ByteStreamWritePosition::AtOffset);
    }
};

TEST_F(FragileBufferTest, FilesSurviveBuffersThatFailToClose)
{
    setSizes(4, 6);
    Fragile::s_closes = false;
    Fragile::s_room = 100;
    const std::tuple<std::vector<std::size_t>, std::string, std::string> rows[] = {
        {{4, 4, 3}, "0123456789a", "0XYZ456789UVW"}, {{4}, "0123", "0XYU"}};
    for (const auto& [parts, before, after] : rows)
    {
        putParts("k", before, parts);
        const auto stream = open("k");
        EXPECT_EQ(readAt(*stream, 0, 20) + readAt(*stream, 0, 20), before + before);
        fail(Operation::UploadPart, 1);
        writeAt(*stream, 1, "XYZ");
        writeAt(*stream, before.size() - 1, after.substr(before.size() - 1));
        EXPECT_EQ(readAt(*stream, 0, 20), after);
        stream->close();
        EXPECT_EQ(stored("k"), after);
    }
}

TEST_F(FragileBufferTest, CachedPartsOfAllFilesMakeRoom)
{
    setSizes(4, 100);
    putParts("k", "01234567", {4, 4});
    putParts("l", "ab", {2});
    Fragile::s_closes = true;
    Fragile::s_room = 7;
    const auto reader = open("k");
    const auto writer = open("l");
    EXPECT_EQ(readAt(*reader, 0, 8), "01234567") << "without the first part while the second is read";
    EXPECT_EQ(readAt(*writer, 0, 2), "ab");
    EXPECT_EQ(outcome([&] { writeAt(*writer, 2, "cd"); }),
        "ByteStreamWriteFailure: Unknown: making room: No space left on device; TMPDIR can name another folder");
    reader->seek(0, std::ios_base::beg); // closes a part, which is cached then
    writeAt(*writer, 2, "c");
    EXPECT_EQ(readAt(*reader, 0, 4), "0123");
    reader->seek(4, std::ios_base::beg);
    writeAt(*writer, 5, "d"); // after a gap, which needs room, too
    writer->close();
    EXPECT_EQ(stored("l"), std::string("abc\0\0d", 6));
}

class DiskBackedBufferTest : public ProviderTest
{
protected:
    struct stat status() const
    {
        struct stat result = {};
        EXPECT_EQ(::stat(boost::filesystem::directory_iterator(temp.path)->path().c_str(), &result), 0);
        return result;
    }

    DiskBackedBufferFactory factory;
};

TEST_F(DiskBackedBufferTest, IsATemporaryFile)
{
    for (const std::size_t size : {10'000U, 0U})
    {
        const BufferPtr buffer = factory.build(size);
        EXPECT_EQ(buffer->size(), size);
        EXPECT_EQ(status().st_size, size == 0 ? 1 : 10'000);
        EXPECT_EQ(status().st_mode & 0777U, 0600U);
        buffer->open();
        EXPECT_EQ(std::string(buffer->data(), size), std::string(size, '\0'));
        std::fill_n(buffer->data(), size, 'x');
        buffer->close();
        EXPECT_FALSE(buffer->isOpen());
        EXPECT_EQ(buffer->data(), nullptr);
        EXPECT_EQ(std::as_const(*buffer).data(), nullptr);
        const int descriptor = ::dup(0); // the lowest free number, which the mapping gets
        ::close(descriptor);
        buffer->open();
        EXPECT_TRUE(buffer->isOpen());
        EXPECT_EQ(std::string(buffer->data(), size), std::string(size, 'x')) << "closing keeps the bytes";
        EXPECT_EQ(::fcntl(descriptor, F_GETFD), FD_CLOEXEC);
        ::close(descriptor); // so that closing the mapping fails
        EXPECT_THROW(buffer->close(), UnknownErrorException);
        EXPECT_FALSE(buffer->isOpen());
        EXPECT_THROW(buffer->open(), UnknownErrorException) << "the bytes may be lost";
    }
    EXPECT_THROW(factory.build(~std::size_t{0}), UnknownErrorException);
    EXPECT_TRUE(is_empty(temp.path));
    setLog(512);
    BufferPtr buffer = factory.build(1);
    const boost::filesystem::path file = *boost::filesystem::directory_iterator(temp.path);
    remove(file);
    create_directories(file / "full");
    buffer.reset();
    EXPECT_THAT(takeLog(), testing::ElementsAre("Failed to delete DiskFile " + file.string()));
    remove_all(file);
}

TEST_F(DiskBackedBufferTest, IsRemovedAfterItsProcessWasKilled)
{
    const BufferPtr own = factory.build(1);
    const std::string name = boost::filesystem::directory_iterator(temp.path)->path().filename().string();
    const std::size_t pid = name.find('-', name.find('-') + 1) + 1; // cloudprovider-PLACE-PID-START-xxxxxx
    const std::size_t start = name.find('-', pid) + 1;
    const std::string place = name.substr(0, pid);
    const std::string kept[] = {name, "other", "cloudprovider-00000000-4194304-1-x", place + "1-", place + "-1-1-x",
        place + "0-1-x", place + "4194304-1"}; // 4194304: larger than any process id
    create_directory(temp.path / (place + "4194304-1-folder"));
    const std::string ofSameId = name.substr(0, start) + '9' + name.substr(start);
    std::for_each(
        std::begin(kept), std::end(kept), [&](const auto& file) { std::ofstream((temp.path / file).string()); });
    std::ofstream((temp.path / ofSameId).string());
    const pid_t child = fork();
    if (child == 0)
    {
        static_cast<void>(factory.build(1).release());
        std::raise(SIGKILL);
    }
    ASSERT_EQ(waitpid(child, nullptr, 0), child);
    EXPECT_EQ(removeTemporaryFilesOfDeadProcesses(), 2);
    EXPECT_FALSE(exists(temp.path / ofSameId));
    EXPECT_TRUE(remove(temp.path / (place + "4194304-1-folder")));
    std::for_each(
        std::begin(kept), std::end(kept), [&](const auto& file) { EXPECT_TRUE(remove(temp.path / file)) << file; });
}

TEST_F(DiskBackedBufferTest, ReservesLittleMoreThanRequested)
{
    const BufferPtr buffer = factory.build(1'000'000);
    EXPECT_EQ(status().st_blocks, 0);
    buffer->reserve(4096);
    buffer->open();
    buffer->data()[4095] = 'x';
    EXPECT_LE(status().st_blocks * 512, 64 * 1024);
    buffer->reserve(300'000);
    buffer->reserve(1);
    EXPECT_GE(status().st_blocks * 512, 300'000);
    struct rlimit old = {};
    ASSERT_EQ(::getrlimit(RLIMIT_FSIZE, &old), 0);
    auto* const handler = std::signal(SIGXFSZ, SIG_IGN);
    const struct rlimit small = {500'000, old.rlim_max}; // stands for a disk of this size
    ASSERT_EQ(::setrlimit(RLIMIT_FSIZE, &small), 0);
    EXPECT_NO_THROW(buffer->reserve(400'000)) << "twice as much as before is too much";
    const auto blocks = status().st_blocks;
    EXPECT_LT(blocks * 512, 450'000) << "the failed attempt is undone";
    EXPECT_THROW(buffer->reserve(1'000'000), UnknownErrorException);
    EXPECT_EQ(::setrlimit(RLIMIT_FSIZE, &old), 0);
    std::signal(SIGXFSZ, handler);
    EXPECT_EQ(status().st_blocks, blocks);
    buffer->reserve(1'000'000);
    EXPECT_EQ(buffer->data()[4095], 'x');
}

} // namespace

} // namespace storage::cloudprovider
