#include "FileTestSupport.hpp"

#include "MultipartUploadManager.hpp"
#include "OpenPartBuffer.hpp"
#include "OpenPartManager.hpp"

#include <storage/cloudprovider/CloudExceptions.hpp>
#include <storage/cloudprovider/OpenFileManager.hpp>

#include <gmock/gmock.h>

#include <algorithm>
#include <array>
#include <atomic>
#include <cstring>
#include <fstream>
#include <future>
#include <map>
#include <shared_mutex>

#include <unistd.h>

// Threads that meet in one file. Gates at the store hold a call until the others have got to where they meet it; no
// case depends on who is faster, and every case ends with the bytes that its writers wrote.

namespace storage::cloudprovider
{

namespace
{

using clients::Operation;
using testing::SizeIs;

/// Holds the first call of one operation on one key until it is told whether to fail.
struct Gate
{
    const Operation operation;
    const std::string key;
    std::atomic<bool> taken = false;
    std::promise<void> entered{};
    std::promise<bool> fails{};

    void pass(Operation called, const std::string& on)
    {
        if (called == operation && on == key && !taken.exchange(true))
        {
            entered.set_value();
            if (fails.get_future().get())
            {
                throw UnknownErrorException("failed at the gate");
            }
        }
    }
};

/// Whether the body fails as a held call does.
template <typename Body>
bool failsLikeTheGate(Body body)
{
    try
    {
        body();
        return false;
    }
    catch (const UnknownErrorException&)
    {
        return true;
    }
}

class RaceTest : public FileTest
{
protected:
    RaceTest()
    {
        setSizes(16, 0);
        faults->setHook(
            [this](Operation operation, const std::string& key)
            {
                ++m_calls.at(static_cast<std::size_t>(operation));
                for (const auto& gate : m_gates)
                {
                    gate->pass(operation, key);
                }
            });
    }

    ~RaceTest() override
    {
        EXPECT_TRUE(temp.isEmpty());
        EXPECT_THAT(store->openUploads(), testing::IsEmpty());
    }

    /// Hold the first such call. Call while no other thread runs.
    Gate& hold(Operation operation, const std::string& key = "file")
    {
        return *m_gates.emplace_back(new Gate{operation, key});
    }

    /// Run a body on a thread of its own.
    template <typename Body>
    void run(const std::string& actor, Body body)
    {
        m_watchdog.setRunning(actor, true);
        std::atomic<pid_t>& id = m_ids[actor];
        id = 0;
        m_threads.emplace_back(
            [this, actor, body, &id]
            {
                id = gettid();
                EXPECT_NO_THROW(body()) << actor;
                m_watchdog.setRunning(actor, false);
            });
    }

    /// Wait until the thread sleeps, in its gate or behind whom it meets, or has ended.
    void waitUntilAsleep(const std::string& actor)
    {
        const std::atomic<pid_t>& id = m_ids[actor];
        for (char state = 'R'; state == 'R' || id == 0; std::this_thread::yield())
        {
            std::ifstream status("/proc/self/task/" + std::to_string(id) + "/stat");
            status.ignore(100, ')').ignore(1);
            state = static_cast<char>(status.get());
        }
    }

    void join()
    {
        std::for_each(m_threads.begin(), m_threads.end(), [](std::thread& thread) { thread.join(); });
        m_threads.clear();
    }

    std::uint64_t calls(Operation operation) const { return m_calls.at(static_cast<std::size_t>(operation)); }

private:
    std::array<std::atomic<std::uint64_t>, clients::allOperations.size()> m_calls{};
    std::vector<std::unique_ptr<Gate>> m_gates;
    std::map<std::string, std::atomic<pid_t>> m_ids;
    std::vector<std::thread> m_threads;
    Watchdog m_watchdog{testing::UnitTest::GetInstance()->current_test_info()->name()};
};

/// Rows: whether what the gate holds fails in the end.
class HeldCallTest : public RaceTest, public testing::WithParamInterface<bool>
{
protected:
    const bool fails = GetParam();
};

TEST_P(HeldCallTest, OpenersOfOnePartWaitForOneLoader)
{
    const std::string bytes = numberedBytes(10);
    store->put("file", bytes);
    OpenPartBuffer part(PartInfo{0, 0, bytes.size(), ""}, LocalDataVersion::CLOUD, true, contextOf("file"));
    Gate& gate = hold(Operation::GetObjectRange);
    std::atomic<unsigned> opened = 0;
    for (const std::string actor : {"a", "b", "c", "d"})
    {
        const auto open = [&]
        {
            if (!failsLikeTheGate([&] { part.open(); }))
            {
                EXPECT_EQ(std::string(part.data(), part.size()), bytes);
                ++opened;
            }
        };
        run(actor, open);
        waitUntilAsleep(actor);
    }
    gate.fails.set_value(fails);
    join();
    EXPECT_EQ(opened, fails ? 3 : 4) << "only the loader's own open fails";
    EXPECT_EQ(calls(Operation::GetObjectRange), fails ? 2 : 1);
    for (; opened != 0; --opened)
    {
        EXPECT_TRUE(part.isOpen()) << "every opener counts";
        part.close();
    }
    EXPECT_FALSE(part.isOpen());
}

TEST_P(HeldCallTest, OpenersOfDifferentFilesWaitForTheirOwn)
{
    OpenFileManager registry;
    std::mutex mutex;
    std::map<std::string, std::vector<std::shared_ptr<OpenPartManager>>> opened; // guarded by mutex
    std::vector<Gate*> gates;
    for (const std::string key : {"x", "y", "z"})
    {
        store->put(key, key);
        gates.push_back(&hold(Operation::GetObjectParts, key));
    }
    for (const std::string opener : {"1", "2", "3", "4"})
    {
        for (const std::string key : {"x", "y", "z"})
        {
            const auto open = [&, key]
            {
                std::shared_ptr<OpenPartManager> manager;
                failsLikeTheGate(
                    [&] {
                        manager = registry.open(
                            iriOf(key), fsp::ByteStreamCreate::MustExist, fsp::ByteStreamTruncate::Keep, faults);
                    });
                const std::lock_guard lock(mutex);
                manager ? opened[key].push_back(std::move(manager)) : void();
            };
            run(key + opener, open);
            waitUntilAsleep(key + opener);
        }
    }
    std::for_each(gates.rbegin(), gates.rend(), [&](Gate* gate) { gate->fails.set_value(fails); });
    join();
    EXPECT_EQ(calls(Operation::GetObjectParts), fails ? 6 : 3) << "one builds, the others share";
    EXPECT_THAT(opened, SizeIs(3));
    for (const auto& [key, managers] : opened)
    {
        EXPECT_THAT(managers, SizeIs(fails ? 3 : 4)) << "only the first opener of each file fails";
        EXPECT_THAT(managers, testing::Each(managers.front())) << key;
        EXPECT_TRUE(registry.isOpen(iriOf(key)));
    }
    opened.clear();
    EXPECT_FALSE(registry.isOpen(iriOf("x")));
}

TEST_P(HeldCallTest, ANewStreamWaitsForARunningFlush)
{
    for (const auto& [size, flush] :
        {std::pair(10U, Operation::PutObject), std::pair(40U, Operation::CompleteMultipartUpload)})
    {
        store->remove("file");
        const std::string bytes = numberedBytes(size);
        const auto first = provider->openStream(iriOf("file"), appending);
        write(*first, bytes);
        Gate& gate = hold(flush);
        // Held, or an opener that is late would find a file that nobody has open, without the bytes that were not
        // stored.
        const auto parts = globalOpenFileManager().open(
            iriOf("file"), fsp::ByteStreamCreate::IfMissing, fsp::ByteStreamTruncate::Keep, faults);
        int code = succeeds;
        run("closer", [&] { code = codeOf([&] { first->close(); }); });
        gate.entered.get_future().wait();
        run("opener",
            [&]
            {
                const auto second = provider->openStream(iriOf("file"), appending);
                write(*second, "and more");
                second->close();
            });
        waitUntilAsleep("opener");
        EXPECT_FALSE(store->get("file"));
        gate.fails.set_value(fails);
        join();
        EXPECT_EQ(code, fails ? fsp::ErrorCode::Unknown.value() : succeeds);
        EXPECT_EQ(store->get("file"), bytes + "and more") << "the second stream writes what the first could not";
    }
}

TEST_P(HeldCallTest, AWriteDuringAnUploadIsUploadedAgain)
{
    putParts("file", std::string(32, 'a'), {16, 16});
    const auto uploader = provider->openStream(iriOf("file"), editing);
    const auto writer = provider->openStream(iriOf("file"), editing);
    write(*uploader, "old!");
    Gate& gate = hold(Operation::UploadPart);
    run("uploader", [&] { uploader->seek(20, std::ios_base::beg); }); // leaves the part, which is sent
    gate.entered.get_future().wait();
    writer->seek(2, std::ios_base::beg);
    write(*writer, "new!");
    gate.fails.set_value(fails);
    join();
    uploader->close();
    writer->close();
    EXPECT_EQ(store->get("file"), "olnew!" + std::string(26, 'a'));
    EXPECT_EQ(calls(Operation::UploadPart), 2);
}

TEST_P(HeldCallTest, ANewerUploadOfOnePartWins)
{
    const OpenFileContextSharedPtr context = contextOf("file");
    MultipartUploadManager uploads(context);
    std::vector<std::string> tags;
    const auto upload = [&](const std::string& bytes)
    {
        const BufferSharedPtr buffer = context->bufferFactory->build(bytes.size());
        buffer->open();
        std::memcpy(buffer->data(), bytes.data(), bytes.size());
        buffer->close();
        uploads.asyncUploadPart(
            [&] {
                return PartInfo{0, 0, bytes.size(), ""};
            },
            buffer, [&](const std::string& tag) { tags.push_back(tag); });
    };
    Gate& gate = hold(Operation::UploadPart);
    run("old", [&] { upload("old"); });
    gate.entered.get_future().wait();
    upload("newer");
    upload("newest!");
    EXPECT_THAT(tags, SizeIs(0)) << "the part is in flight: newer bytes wait";
    gate.fails.set_value(fails);
    join();
    uploads.joinUploads();
    ASSERT_THAT(tags, SizeIs(fails ? 1 : 2)) << "the bytes in the middle were never sent";
    uploads.complete({{0, 0, 7, tags.back()}});
    EXPECT_EQ(store->get("file"), "newest!");
}

TEST_F(RaceTest, RecordsAreQueuedInTheOrderInWhichTheyAreTaken)
{
    const OpenFileContextSharedPtr context = contextOf("file");
    MultipartUploadManager uploads(context);
    const BufferSharedPtr buffer = context->bufferFactory->build(2);
    std::string lastTag;
    const auto upload = [&](const MultipartUploadManager::RecordSource& takeRecord)
    { uploads.asyncUploadPart(takeRecord, buffer, [&](const std::string& tag) { lastTag = tag; }); };
    std::promise<void> taken;
    std::promise<void> mayGoOn;
    run("smaller",
        [&]
        {
            upload(
                [&]
                {
                    taken.set_value();
                    mayGoOn.get_future().wait();
                    return PartInfo{0, 0, 1, ""};
                });
        });
    taken.get_future().wait();
    run("grown", [&] { upload([] { return PartInfo{0, 0, 2, ""}; }); });
    waitUntilAsleep("grown");
    mayGoOn.set_value();
    join();
    uploads.joinUploads();
    uploads.complete({{0, 0, 2, lastTag}});
    EXPECT_EQ(store->get("file"), std::string(2, '\0'));
}

TEST_P(HeldCallTest, TwoFirstPartsOpenOneUpload)
{
    putParts("file", std::string(48, 'a'), {16, 16, 16});
    std::vector<fsp::ByteStreamPtr> streams;
    for (const std::streamoff offset : {0, 20, 40})
    {
        streams.push_back(provider->openStream(iriOf("file"), editing));
        streams.back()->seek(offset, std::ios_base::beg);
        write(*streams.back(), "b");
    }
    Gate& gate = hold(Operation::CreateMultipartUpload);
    run("first", [&] { streams[0]->close(); });
    gate.entered.get_future().wait();
    run("second", [&] { streams[1]->close(); });
    waitUntilAsleep("second");
    gate.fails.set_value(fails);
    join();
    EXPECT_THAT(store->openUploads(), SizeIs(1));
    streams[2]->close();
    EXPECT_EQ(store->get("file"), "b" + std::string(19, 'a') + "b" + std::string(19, 'a') + "b" + std::string(7, 'a'));
}

INSTANTIATE_TEST_SUITE_P(
    Gate, HeldCallTest, testing::Bool(), [](const auto& row) { return row.param ? "fails" : "succeeds"; });

/// Bytes of one writer: the top bit says whose they are, the others count.
std::string sequence(unsigned writer, std::size_t first, std::size_t size)
{
    std::string bytes;
    for (std::size_t i = first; i < first + size; ++i)
    {
        bytes.push_back(static_cast<char>(writer << 7 | (i & 0x7F)));
    }
    return bytes;
}

TEST_F(RaceTest, TwoAppendersLoseNothing)
{
    for (const std::size_t rounds : {1U, 100U}) // of opening and closing the file
    {
        store->remove("file");
        const std::size_t each = rounds == 1 ? 2000 : 300;
        // Closing sends a last part that is not full, and nobody locks the bytes that another stream may be writing
        // there: they are sent again. So that the race is about files and not about bytes, closing waits for writes.
        std::shared_mutex writing;
        for (const unsigned writer : {0U, 1U})
        {
            const auto appendAll = [&, rounds, each, writer]
            {
                for (std::size_t i = 0; i < each; i += each / rounds)
                {
                    const auto stream = provider->openStream(iriOf("file"), appending);
                    for (std::size_t written = 0; written < each / rounds;)
                    {
                        const std::size_t size = std::min(1 + written % 23, each / rounds - written);
                        const std::shared_lock lock(writing);
                        EXPECT_EQ(write(*stream, sequence(writer, i + written, size)), size);
                        written += size;
                    }
                    const std::unique_lock lock(writing);
                    stream->close();
                }
            };
            run("appender " + std::to_string(writer), appendAll);
        }
        join();
        std::array<std::string, 2> written;
        for (const char byte : store->get("file").value_or(""))
        {
            written[static_cast<unsigned char>(byte) >> 7].push_back(byte);
        }
        EXPECT_EQ(written[0], sequence(0, 0, each)) << rounds << " rounds";
        EXPECT_EQ(written[1], sequence(1, 0, each)) << rounds << " rounds";
    }
}

TEST_F(RaceTest, ReadersShareAFileThatGrowsAndDownloadsThatFail)
{
    const std::string stored = numberedBytes(100);
    putParts("file", stored, {16, 16, 58, 10}); // nothing is cached: parts come and go all the time
    std::atomic<unsigned> downloads = 0;
    faults->setHook(
        [&](Operation operation, const std::string&)
        {
            if (operation == Operation::GetObjectRange && ++downloads % 5 == 0)
            {
                throw UnknownErrorException("every fifth");
            }
        });
    const std::shared_ptr<fsp::ByteStream> appender = provider->openStream(iriOf("file"), appending);
    const auto appendAll = [&]
    {
        for (std::size_t written = 0; written < 2000;)
        {
            // Fails only while the last stored part cannot be loaded, and then writes nothing.
            const int code = codeOf([&] { EXPECT_EQ(write(*appender, "tail"), 4); });
            written += code == succeeds ? 4U : 0U;
        }
    };
    run("appender", appendAll);
    for (const std::size_t reader : {1U, 2U, 3U})
    {
        const auto readAll = [&, reader]
        {
            const auto stream = provider->openReadOnlyStream(iriOf("file"));
            for (std::size_t i = 0; i < 400; ++i)
            {
                const std::size_t offset = i * (2 * reader + 11) % stored.size();
                const std::string expected = stored.substr(offset, 30);
                std::string bytes(expected.size(), '?');
                stream->seek(static_cast<std::streamoff>(offset), std::ios_base::beg);
                const auto read = [&] { stream->read(bytes.data(), static_cast<std::streamsize>(bytes.size())); };
                EXPECT_TRUE(codeOf(read) != succeeds || bytes == expected) << "wrong bytes at " << offset;
            }
            stream->close();
        };
        run("reader " + std::to_string(reader), readAll);
    }
    join();
    faults->setHook({});
    appender->close();
    std::string grown = stored;
    for (int i = 0; i < 500; ++i)
    {
        grown += "tail";
    }
    EXPECT_EQ(store->get("file"), grown);
}

} // namespace

} // namespace storage::cloudprovider
