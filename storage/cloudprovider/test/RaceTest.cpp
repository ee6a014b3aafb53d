#include "ProviderTest.hpp"

#include "MultipartUploadManager.hpp"
#include "OpenPartManager.hpp"

#include <storage/cloudprovider/OpenFileManager.hpp>

#include <algorithm>
#include <atomic>
#include <fstream>
#include <shared_mutex>
#include <thread>

// Threads that meet in one file. One thread stops in a call of the store until the others have reached the point where
// they wait for it, so no case depends on which thread is faster.

namespace storage::cloudprovider
{

namespace
{

using Body = std::function<void()>;

/// Rows: whether the call fails in which the threads meet.
class RaceTest : public ProviderTest, public testing::WithParamInterface<bool>
{
protected:
    RaceTest() { setSizes(16, 0); }

    void start(const Body& body)
    {
        m_lastThread = 0;
        const auto run = [this, body]
        {
            m_lastThread = gettid();
            EXPECT_NO_THROW(body());
        };
        m_threads.emplace_back(run);
    }

    /// Start a thread and wait until it has ended or sleeps because it waits for another one.
    void startAndWait(const Body& body)
    {
        start(body);
        for (char state = 'R'; state == 'R' || state == 'D' || m_lastThread == 0; std::this_thread::yield())
        {
            std::ifstream status("/proc/self/task/" + std::to_string(m_lastThread) + "/stat");
            status.ignore(100, ')').ignore(1);
            state = static_cast<char>(status.get());
        }
    }

    void join() { m_threads.clear(); }

    /// Run a body. In its first call of the operation, run another one; then that call fails or succeeds.
    void meet(Operation operation, const Body& first, const Body& meanwhile)
    {
        std::atomic<bool> isFirst = true;
        const auto hook = [&](Operation called, const std::string&)
        {
            if (called == operation && isFirst.exchange(false))
            {
                meanwhile();
                if (fails)
                {
                    throw UnknownErrorException("failed");
                }
            }
        };
        faults->setHook(hook);
        faults->takeCalls();
        first();
        join();
        faults->setHook({});
    }

    const bool fails = GetParam();

private:
    std::atomic<pid_t> m_lastThread = 0;
    std::vector<std::jthread> m_threads;
};

TEST_P(RaceTest, OpenersOfAPartShareOneLoader)
{
    store->put("file", "0123456789");
    OpenPartBuffer part(PartInfo{0, 0, 10, ""}, LocalDataVersion::CLOUD, true, contextOf("file"));
    std::atomic<unsigned> opened = 0;
    const auto open = [&]
    {
        opened += outcome([&] { part.open(); }) == "done" ? 1U : 0U;
        EXPECT_TRUE(opened == 0 || std::string(part.data(), part.size()) == "0123456789");
    };
    const auto openTwice = [&]
    {
        startAndWait(open);
        startAndWait(open);
    };
    meet(Operation::GetObjectRange, open, openTwice);
    const std::string download = "getObjectRange file 0 9";
    EXPECT_EQ(faults->takeCalls(), fails ? download + "; " + download : download);
    EXPECT_EQ(opened, fails ? 2 : 3) << "only the loader's own open fails";
    for (; opened != 0; --opened)
    {
        EXPECT_TRUE(part.isOpen()) << "every opener counts";
        part.close();
    }
    EXPECT_FALSE(part.isOpen());
}

TEST_P(RaceTest, OpenersOfAFileShareOnePartManager)
{
    OpenFileManager registry;
    std::shared_ptr<OpenPartManager> opened[4];
    const auto open = [&](std::size_t i, const char* key = "x")
    {
        outcome([&]
            { opened[i] = registry.open(iriOf(key), fsp::ByteStreamCreate{1}, fsp::ByteStreamTruncate{1}, faults); });
    };
    const auto openMore = [&]
    {
        EXPECT_TRUE(registry.isOpen(iriOf("x"))) << "being opened counts";
        startAndWait([&] { open(1); });
        startAndWait([&] { open(2); });
        open(3, "y");
        EXPECT_TRUE(opened[3]) << "opening another file does not wait";
    };
    store->put("x", "");
    store->put("y", "");
    meet(
        Operation::GetObjectParts, [&] { open(0); }, openMore);
    EXPECT_EQ(
        faults->takeCalls(), std::string("getObjectParts x; getObjectParts y") + (fails ? "; getObjectParts x" : ""));
    EXPECT_EQ(opened[0], fails ? nullptr : opened[1]) << "only the first open fails";
    EXPECT_TRUE(opened[1] && opened[1] == opened[2]);
    std::fill(std::begin(opened), std::end(opened), nullptr);
    EXPECT_FALSE(registry.isOpen(iriOf("x")));
}

TEST_P(RaceTest, AStreamOpenedDuringAFlushWaits)
{
    for (const Operation flush : {Operation::PutObject, Operation::CompleteMultipartUpload})
    {
        const std::string old = numberedBytes(flush == Operation::PutObject ? 0 : 32);
        putParts("file", old, old.empty() ? std::vector<std::size_t>{0} : std::vector<std::size_t>{16, 16});
        const auto first = provider->openStream(iriOf("file"), appending);
        write(*first, "first");
        // Keeps the file open. Otherwise a late second stream would not see what a failed flush has not stored.
        const auto held = globalOpenFileManager().open(iriOf("file"), {}, {}, faults);
        const auto append = [&]
        {
            const auto second = provider->openStream(iriOf("file"), appending);
            EXPECT_EQ(stored("file"), fails ? old : old + "first");
            write(*second, "second");
            second->close();
        };
        meet(
            flush, [&] { EXPECT_EQ(reasonOf([&] { first->close(); }), fails ? "Unknown" : "done"); },
            [&] { startAndWait(append); });
        EXPECT_EQ(stored("file"), old + "firstsecond") << "also what the first stream could not store";
    }
}

TEST_P(RaceTest, AMoveLosesNothingIfItsDestinationIsOpened)
{
    store->put("source", "0123456789");
    fsp::ByteStreamPtr other;
    const auto open = [&]
    {
        other = provider->openStream(iriOf("file"), editing);
        writeAt(*other, 10, "other");
    };
    const auto move = [&] { provider->moveFile(iriOf("source"), iriOf("file"), {}); };
    meet(
        Operation::GetObjectRange, [&] { EXPECT_EQ(reasonOf(move), fails ? "Unknown" : "InUse"); }, open);
    other->close();
    EXPECT_EQ(stored("source"), "0123456789");
    EXPECT_EQ(stored("file"), (fails ? std::string(10, '\0') : "0123456789") + "other");
}

TEST_P(RaceTest, AMoveKeepsItsSourceUnlessItsDestinationIsStored)
{
    for (const Operation failing : {Operation::PutObject, Operation::CreateMultipartUpload})
    {
        store->put("source", "0123456789");
        fsp::ByteStreamPtr other;
        const auto open = [&](Operation operation, const std::string&) {
            operation == Operation::GetObjectRange ? void(other = provider->openStream(iriOf("file"), editing))
                                                   : void();
        };
        faults->setHook(open);
        const auto close = [&](auto&&, auto&&, std::string_view record)
        {
            if (record.find("isStored") != std::string_view::npos) // the move has closed its streams
            {
                setLog(0);
                writeAt(*other, failing == Operation::PutObject ? 10 : 20, "other"); // in one part or two
                fails ? fail(failing) : void();
                // A flush that cannot open its upload is quiet.
                const bool isReported = fails && failing == Operation::PutObject;
                EXPECT_EQ(reasonOf([&] { other->close(); }), isReported ? "PermissionDenied" : "done");
            }
        };
        foundation::log::setSink(close);
        setLog(2);
        const auto move = [&] { provider->moveFile(iriOf("source"), iriOf("file"), {}); };
        EXPECT_EQ(reasonOf(move), fails ? "InUse" : "done");
        EXPECT_EQ(stored("source"), fails ? std::optional("0123456789") : std::nullopt);
        EXPECT_EQ(stored("file").has_value(), !fails);
        faults->clearFaults();
        store->remove("file");
    }
}

TEST_P(RaceTest, TwoFirstPartsOpenOneUpload)
{
    putParts("file", std::string(48, 'a'), {16, 16, 16});
    std::vector<fsp::ByteStreamPtr> streams;
    for (const std::size_t offset : {0U, 20U, 40U})
    {
        streams.push_back(provider->openStream(iriOf("file"), editing));
        writeAt(*streams.back(), offset, "b");
    }
    meet(
        Operation::CreateMultipartUpload, [&] { streams[0]->close(); },
        [&] { startAndWait([&] { streams[1]->close(); }); });
    EXPECT_THAT(openUploads(), SizeIs(1));
    streams[2]->close();
    EXPECT_EQ(stored("file"), "b" + std::string(19, 'a') + "b" + std::string(19, 'a') + "b" + std::string(7, 'a'));
}

TEST_P(RaceTest, AWriteDuringAnUploadIsUploadedAgain)
{
    putParts("file", std::string(32, 'a'), {16, 16});
    const auto uploader = provider->openStream(iriOf("file"), editing);
    const auto writer = provider->openStream(iriOf("file"), editing);
    write(*uploader, "old!");
    const auto leavePart = [&] { uploader->seek(20, std::ios_base::beg); };
    meet(Operation::UploadPart, leavePart, [&] { std::jthread([&] { writeAt(*writer, 2, "new!"); }); });
    uploader->close();
    writer->close();
    EXPECT_EQ(stored("file"), "olnew!" + std::string(26, 'a'));
}

/// Uploads versions of one part. A version has as many bytes as its number says.
class PartVersionsTest : public RaceTest
{
protected:
    /// @param beforeTaken  runs before the record is taken
    void upload(std::size_t version, const Body& beforeTaken = Body([] {}))
    {
        const auto takeRecord = [&]
        {
            beforeTaken();
            return PartInfo{0, 0, version, ""};
        };
        uploads.asyncUploadPart(
            takeRecord, DiskBackedBufferFactory().build(version), [&](const std::string& tag) { tags.push_back(tag); });
    }

    void expectStored(std::size_t version)
    {
        uploads.joinUploads();
        uploads.complete({{0, 0, version, tags.back()}});
        EXPECT_EQ(stored("file"), std::string(version, '\0'));
    }

    std::vector<std::string> tags;
    MultipartUploadManager uploads{contextOf("file")};
};

TEST_P(PartVersionsTest, TheNewestIsStored)
{
    const auto uploadNewer = [&]
    {
        upload(2);
        upload(3);
        EXPECT_THAT(tags, IsEmpty()) << "newer versions wait while one is in flight";
    };
    meet(
        Operation::UploadPart, [&] { upload(1); }, uploadNewer);
    expectStored(3);
    EXPECT_THAT(tags, SizeIs(fails ? 1 : 2)) << "the version in between is not sent";
    upload(1);
    EXPECT_EQ(store->openUploads().at(0).tag, tags.at(tags.size() - 2)) << "begun with the tag of the last upload";
}

TEST_P(PartVersionsTest, ThatCannotBeMappedFailTheFlush)
{
    upload(1, [&] { remove_all(*boost::filesystem::directory_iterator(temp.path)); });
    EXPECT_TRUE(uploads.isUploading()) << "otherwise a flush would find nothing to report";
    EXPECT_ANY_THROW(uploads.joinUploads());
}

TEST_P(PartVersionsTest, AreQueuedInTheOrderInWhichTheyAreTaken)
{
    upload(1, [&] { startAndWait([&] { upload(2); }); });
    join();
    expectStored(2);
}

TEST_P(RaceTest, AppendersAndReadersShareAFile)
{
    const std::string old = numberedBytes(100);
    setSizes(16, 60);
    putParts("file", old, {16, 16, 58, 10}); // the cache is too small and often emptied, so parts are loaded again
    // A close uploads the last part while another stream may be writing to it, and then uploads it again. To spare the
    // sanitizer this race about bytes, closing waits for writes.
    std::shared_mutex writing;
    const auto append = [&](char byte)
    {
        for (std::size_t round = 1; round <= 40; ++round)
        {
            const auto stream = provider->openStream(iriOf("file"), appending);
            for (std::size_t size = 1; size <= round; size += 4)
            {
                const std::shared_lock lock(writing);
                write(*stream, std::string(size, byte));
            }
            const std::unique_lock lock(writing);
            stream->close();
        }
    };
    start([&] { append('a'); });
    start([&] { append('b'); });
    for (std::size_t i = 0; i < 1000; ++i)
    {
        const std::size_t offset = i * 13 % 70;
        EXPECT_EQ(readAt(*provider->openReadOnlyStream(iriOf("file")), offset, 30), old.substr(offset, 30));
        DownloadedPartCache::discardAll();
    }
    join();
    const std::string file = stored("file").value_or("");
    EXPECT_EQ(file.substr(0, 100), old);
    EXPECT_EQ(std::count(file.begin() + 100, file.end(), 'a'), 2860);
    EXPECT_EQ(std::count(file.begin() + 100, file.end(), 'b'), 2860);
}

INSTANTIATE_TEST_SUITE_P(CallFails, RaceTest, testing::Bool(), testing::PrintToStringParamName());
INSTANTIATE_TEST_SUITE_P(CallFails, PartVersionsTest, testing::Bool(), testing::PrintToStringParamName());

} // namespace

} // namespace storage::cloudprovider
