#include "TestStore.hpp"

#include <gmock/gmock.h>

#include <array>
#include <atomic>
#include <csignal>
#include <fstream>
#include <istream>
#include <random>
#include <thread>

#include <sys/mman.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

namespace storage::clients::test
{

namespace
{

using namespace ::testing;

constexpr std::size_t objects = 3;   // of one writer
constexpr std::uint64_t removed = 0; // as a version: there is no object

// A process that changes its own objects, and one that all writers share, until it is killed.
struct Writer
{
    int process = 0;
    std::atomic<unsigned> steps = 0; // that it has done since it was started
    // Versions of its objects. One that was attempted and is not done may have become visible or not.
    std::array<std::atomic<std::uint64_t>, objects> attempted{};
    std::array<std::atomic<std::uint64_t>, objects> done{};
};

// Give random objects new versions, each in one of the possible ways.
void writeUntilKilled(const path& store, const std::string& folder, Writer& writer, std::uint64_t seed)
{
    std::mt19937 random(seed);
    LocalClient client(store);
    LocalClient reader(store); // stores nothing, so it reads what others have stored
    for (std::uint64_t version = 1'000'000 * seed; !Test::HasFailure(); ++version)
    {
        const std::size_t object = random() % objects;
        const std::string key = folder + std::to_string(object);
        const std::string whole = content(version, 100 + random() % 200'000);
        const auto way = random() % 5;
        writer.attempted[object] = way == 0 ? removed : version;
        if (way < 3)
        {
            way == 0 ? client.deleteObject(key) : put(client, key, whole);
        }
        else // write it twice, the second time as copies of the parts that are there
        {
            const std::size_t middle = 1 + random() % whole.size();
            putParts(client, key, {whole.substr(0, middle), whole.substr(middle)});
            const std::string upload = client.createMultipartUpload(key, "");
            std::vector<cloudprovider::PartInfo> parts = client.getObjectParts(key);
            for (cloudprovider::PartInfo& part : parts)
            {
                part.Tag = client.copyPart(key, upload, part);
            }
            client.completeMultipartUpload(key, upload, parts);
        }
        writer.done[object] = writer.attempted[object].load();
        put(client, "shared", content(version, 100 + random() % 100'000));
        versionOf(get(reader, "shared"));
        ++writer.steps;
    }
}

// Let the sessions of a store be of an earlier start of the machine, so that their notes do not count.
void restartMachine(const path& store)
{
    for (const std::string& session : files(store / "sessions"))
    {
        std::ofstream(store / "sessions" / session) << "earlier\n";
    }
}

} // namespace

TEST(CrashTest, EveryObjectIsACompleteVersionAndNothingElseIsLeft)
{
    using Writers = std::array<Writer, 3>;
    void* const memory = ::mmap(nullptr, sizeof(Writers), PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0);
    ASSERT_NE(memory, MAP_FAILED);
    auto& writers = *new (memory) Writers();
    const TestFolder folder;
    const unsigned seed = std::random_device{}();
    SCOPED_TRACE("seed " + std::to_string(seed));
    std::mt19937 random(seed);
    for (unsigned round = 1; round <= 12 && !HasFailure(); ++round)
    {
        // All writers open the store at the same time; in the first round they create it.
        for (std::size_t i = 0; i < writers.size(); ++i)
        {
            writers[i].steps = 0;
            writers[i].process = startProcess(
                [&] { writeUntilKilled(folder.store, std::to_string(i) + '/', writers[i], 100UL * round + i); });
        }
        for (std::size_t i = 0; i < writers.size(); ++i)
        {
            Writer& writer = writers[i];
            const auto steps = random() % 10;
            do
            {
                // Spreads the kills over the steps, which take some milliseconds each. No result depends on it.
                std::this_thread::sleep_for(std::chrono::microseconds(random() % 10'000));
            } while (writer.steps < steps && ::waitpid(writer.process, nullptr, WNOHANG) == 0);
            ASSERT_EQ(::kill(writer.process, SIGKILL), 0);
            ASSERT_EQ(waitForProcess(writer.process), -1) << "the writer has ended by itself";

            // Opening the store collects what the killed writer has left, while the others go on.
            LocalClient client(folder.store);
            for (std::size_t object = 0; object < objects; ++object)
            {
                const std::string key = std::to_string(i) + '/' + std::to_string(object);
                const std::uint64_t now = client.getObjectInfo(key).exists ? versionOf(get(client, key)) : removed;
                EXPECT_THAT(now, AnyOf(writer.done[object].load(), writer.attempted[object].load())) << key;
                writer.done[object] = now;
                writer.attempted[object] = now;
            }
        }
        checkStore(folder.store);
        EXPECT_THAT(files(folder.store / "sessions"), IsEmpty());
    }
}

TEST(CrashTest, CollectsOrphansOfDeadSessionsOnly)
{
    const TestFolder folder;
    const path& store = folder.store;
    LocalClient living(store, nothingInline);
    CallbackBuffer buffer(content(1, 1000),
        [&]
        {
            // What a crash leaves between the publication of a file and the commit, and a second incoming file.
            // The last two belong to no dead session: one has an id that will be assigned, the other an older one.
            for (const char* orphan : {"sessions/00000000000000ff", "incoming/00000000000000ff-1",
                     "contents/7-00000000000000ff", "contents/7-00000000000000aa", "contents/0-00000000000000aa"})
            {
                std::ofstream(store / orphan) << "orphan";
            }
            const LocalClient collecting(store);
            EXPECT_TRUE(remove(store / "contents/7-00000000000000aa")) << "a living client may be about to use it";
            EXPECT_THAT(files(store / "incoming"), SizeIs(1));
            EXPECT_THAT(files(store / "sessions"), SizeIs(2)) << "of the living and of the collecting client";
            EXPECT_THAT(files(store / "contents"), IsEmpty());
        });
    std::istream in(&buffer);
    living.putObject("k", in, 1000);
    EXPECT_EQ(versionOf(get(living, "k")), 1U);
    checkStore(store);

    std::string boot;
    std::getline(std::ifstream("/proc/sys/kernel/random/boot_id"), boot);
    std::ofstream(store / "sessions/00000000000000fe") << boot << "\n0-00000000000000fe\n";
    std::ofstream(store / "contents/0-00000000000000fe") << "noted orphan";
    std::ofstream(store / "contents/0-00000000000000fd") << "other file";
    runSql(store,
        "INSERT INTO contents (id, refs, size, data) VALUES (98, 1, 1, x'00'); INSERT INTO object_parts VALUES "
        "(99, 0, 98); INSERT INTO removed VALUES (99)"); // a large object whose removal was interrupted
    {
        const LocalClient collecting(store);
    }
    EXPECT_TRUE(remove(store / "contents/0-00000000000000fd")) << "not all files are looked at";
    checkStore(store);
    EXPECT_EQ(runSql(store, "SELECT count(*) FROM contents WHERE id = 98"), "0");

    LocalClient removing(store);
    removing.deleteObject("k");
    EXPECT_THAT(files(store / "sessions"), SizeIs(2)) << "a crash before the file is removed must be noticed";

    std::filesystem::create_directory(store / "incoming/00000000000000fc-1"); // cannot be removed
    std::ofstream(store / "sessions/00000000000000fc") << "dead";
    EXPECT_NO_THROW(LocalClient(store, {.createMissing = false}));
}

TEST(CrashTest, EndsTheUploadsOfClientsThatHaveEnded)
{
    const TestFolder folder;
    put(*std::make_unique<LocalClient>(folder.store), "k", content(1, 1000));
    LocalClient living(folder.store);
    {
        LocalClient ending(folder.store);
        for (LocalClient* const client : {&living, &ending})
        {
            const std::string upload = client->createMultipartUpload("k", "");
            client->copyPart("k", upload, client->getObjectParts("k").at(0)); // writes no file
        }
    }
    EXPECT_EQ(::mkfifo((folder.store / "sessions/00000000000000ff").c_str(), 0600), 0); // in place of a lock file
    LocalClient next(folder.store);
    EXPECT_THAT(next.pendingUploads(), SizeIs(1));
    const std::string left = living.pendingUploads().at(0).uploadId;
    EXPECT_NO_THROW(living.completeMultipartUpload(
        "k", left, {{0, 0, 1000, living.copyPart("k", left, living.getObjectParts("k").at(0))}}));
    checkStore(folder.store);
}

TEST(CrashTest, CollectsAnUploadThatAClientLeftAndALossOfPowerUndid)
{
    const TestFolder folder;
    {
        LocalClient client(folder.store, nothingInline);
        uploadPart(client, "k", client.createMultipartUpload("k", ""), 0, content(1, 1000));
    }
    for (const char* table : {"uploads", "upload_parts", "contents"})
    {
        runSql(folder.store, std::string("DELETE FROM ") + table);
    }
    restartMachine(folder.store);
    const LocalClient collecting(folder.store);
    checkStore(folder.store);
}

TEST(CrashTest, CollectsNothingThatAnUnseenCommitNames)
{
    const TestFolder folder;
    const path shared = folder.store / "index.sqlite-shm";
    const auto killAfter = [&](const std::function<void(LocalClient & client)>& task)
    {
        const int process = startProcess(
            [&]
            {
                LocalClient client(folder.store, nothingInline);
                task(client);
                ::raise(SIGKILL);
            });
        EXPECT_EQ(waitForProcess(process), -1);
    };
    const auto runWithCrashes = [&](LocalClient& first)
    {
        put(first, "k", content(1, 1000));
        // A client that is killed after its commit is in SQLite's log, but before the others are told.
        char seen[96]; // where the log ends
        std::fstream(shared).read(seen, sizeof(seen));
        killAfter([](LocalClient& client) { put(client, "new", content(2, 1000)); });
        std::fstream(shared).write(seen, sizeof(seen));
        restartMachine(folder.store);   // also in place of the note that it had before its commit
        killAfter([](LocalClient&) {}); // collects
    };
    killAfter(runWithCrashes);
    checkStore(folder.store); // SQLite reads the whole log, since no client is left
}

} // namespace storage::clients::test
