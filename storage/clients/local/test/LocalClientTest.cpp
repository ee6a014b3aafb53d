#include "TestStore.hpp"

#include <storage/clients/local/CheckLocalStore.hpp>
#include <storage/cloudprovider/CloudExceptions.hpp>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <csignal>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <functional>
#include <map>
#include <sstream>
#include <thread>

#include <fcntl.h>
#include <sched.h>
#include <sys/file.h>
#include <sys/mount.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <unistd.h>

namespace storage::clients::test
{

namespace
{

using namespace cloudprovider;
using namespace ::testing;

// Run a shell command in the directory that holds the store. @return 0 if it succeeded
int shell(const TestFolder& folder, const std::string& command)
{
    return std::system(("cd '" + folder.root.native() + "' && " + command).c_str());
}

// A failure with a detail of one line that has both texts.
template <typename Expected>
Matcher<std::function<void()>> fails(const std::string& reason, const std::string& place = "")
{
    return Throws<Expected>(
        Property(&CloudException::detail, Optional(AllOf(HasSubstr(reason), HasSubstr(place), Not(HasSubstr("\n"))))));
}

// A store with one object in the index and one in a file, closed. Nothing is in the index's log.
void makeStore(const path& store)
{
    {
        LocalClient client(store);
        put(client, "small", content(1, 1000));
        put(client, "large", content(2, 500'000));
    }
    runSql(store, "PRAGMA wal_checkpoint(TRUNCATE)");
}

// The commits in the log of the index.
int countCommits(const path& store)
{
    std::ifstream log(store / "index.sqlite-wal", std::ios::binary);
    char header[32];
    log.read(header, sizeof(header));
    int commits = 0;
    for (char frame[24 + 4096]; log.read(frame, sizeof(frame)) && std::memcmp(frame + 8, header + 16, 8) == 0;)
    {
        commits += std::memcmp(frame + 4, "\0\0\0", 4) == 0 ? 0 : 1; // the size of the index after a commit
    }
    return commits;
}

} // namespace

TEST(LocalClientTest, RefusesOtherDirectoriesAndReportsDamage)
{
    const auto noStore = fails<InvalidLocationException>;
    const auto damaged = fails<UnknownErrorException>;
    const struct
    {
        Matcher<std::function<void()>> (*fails)(const std::string& reason, const std::string& place);
        const char* reason;
        const char* command; // that damages the store
        const char* sql = "";
    } rows[] = {{noStore, "is not a directory", "rm -r store && touch store"},
        {noStore, "is not a store: it has other content", "rm store/index.sqlite"},
        {noStore, "its index belongs to another program", "true", "PRAGMA application_id = 0"},
        {damaged, "the index is damaged", "head -c 8192 /dev/zero > store/index.sqlite"},
        {damaged, "the index is not a regular file", "rm store/index.sqlite && mkfifo store/index.sqlite"},
        {damaged, "damaged: the index is empty", "truncate -s 0 store/index.sqlite && rm store/index.sqlite-wal"},
        {damaged, "the index is damaged", "cd store && truncate -s 0 index.sqlite && rm -r contents incoming sessions"},
        {damaged, "the index is damaged", "truncate -s 1 store/index.sqlite"},
        {damaged, "the index is damaged", "truncate -s 8192 store/index.sqlite"},
        {damaged, "has version 3; this program supports only versions 1 and 2", "true", "PRAGMA user_version = 3"},
        {damaged, "damaged: the file", "rm store/contents/*"},
        {damaged, "499999 bytes instead of 500000", "truncate -s 499999 store/contents/*"},
        {damaged, "500001 bytes instead of 500000", "truncate -s 500001 store/contents/*"},
        {damaged, "is not a regular file", "for f in store/contents/*; do rm $f; mkfifo $f; done"},
        {damaged, "is not a regular file", "for f in store/contents/*; do mv $f moved; ln -s $PWD/moved $f; done"},
        {damaged, "damaged: the index has lost a part", "true", "DELETE FROM contents WHERE data IS NULL"},
        {damaged, "damaged: the index has lost", "true", "DELETE FROM object_parts"},
        {damaged, "damaged: the index has lost", "true", "UPDATE object_parts SET offset = 9 WHERE content = 4"},
        {damaged, "the index is damaged",
            "head -c 40000 /dev/zero | dd of=store/index.sqlite bs=8192 seek=1 conv=notrunc status=none"}};
    for (const auto& row : rows)
    {
        SCOPED_TRACE(row.reason);
        const TestFolder folder;
        makeStore(folder.store);
        EXPECT_EQ(shell(folder, row.command), 0);
        EXPECT_EQ(*row.sql == '\0' ? "" : runSql(folder.store, row.sql), "");
        EXPECT_EQ(shell(folder, "cp -r store before"), 0);
        std::ostringstream out;
        EXPECT_THAT([&] { LocalClient(folder.store).getObjectRange("large", out, 0, 0); },
            row.fails(row.reason, '"' + folder.store.native() + '"'));
        EXPECT_EQ(out.str(), "");
        EXPECT_EQ(shell(folder, "! diff -r -x '*-shm' -x '*-end' before store | grep -v 'is a fifo while'"), 0)
            << "expected no change";
    }
}

TEST(LocalClientTest, NoticesThatTheIndexIsTruncatedWhileItIsOpen)
{
    const TestFolder folder;
    put(*std::make_unique<LocalClient>(folder.store), "inline", content(1, 50'000));
    for (const bool hasLog : {true, false})
    {
        LocalClient client(folder.store);
        hasLog ? put(client, "new", content(2, 1000)) : void();
        ASSERT_EQ(keys(client).size(), 2U);
        ASSERT_EQ(shell(folder, "cp store/index.sqlite whole && truncate -s 0 store/index.sqlite"), 0);
        EXPECT_THAT([&] { get(client, "inline"); }, fails<UnknownErrorException>("the index is damaged"));
        EXPECT_THAT([&] { LocalClient(folder.store); }, fails<UnknownErrorException>("damaged"));
        ASSERT_EQ(shell(folder, "cat whole > store/index.sqlite"), 0);
        EXPECT_EQ(versionOf(get(client, "inline")), 1U);
        EXPECT_EQ(versionOf(get(client, "new")), 2U);
    }
}

TEST(LocalClientTest, WaitsForAStoppedWriterOnlyToWriteAndNotForEver)
{
    const TestFolder folder;
    makeStore(folder.store);
    makeStore(folder.root / "opening");
    ASSERT_EQ(::mkdir((folder.root / "new").c_str(), 0700), 0);
    const int process = startProcess(
        [&]
        {
            const int creating = ::open((folder.root / "new").c_str(), O_RDONLY);
            sqlite3* index = nullptr;
            EXPECT_EQ(::flock(creating, LOCK_EX), 0);
            EXPECT_EQ(sqlite3_open((folder.store / "index.sqlite").c_str(), &index), SQLITE_OK);
            EXPECT_EQ(sqlite3_exec(index, "BEGIN IMMEDIATE", nullptr, nullptr, nullptr), SQLITE_OK);
            struct flock firstUser = {F_WRLCK, SEEK_SET, 128, 1, 0};
            const path shared = folder.root / "opening" / "index.sqlite-shm";
            EXPECT_EQ(::fcntl(::open(shared.c_str(), O_RDWR), F_SETLK, &firstUser), 0);
            ::raise(SIGSTOP);
        });
    int status = 0;
    ASSERT_EQ(::waitpid(process, &status, WUNTRACED), process);
    using namespace std::chrono_literals;
    std::ofstream(folder.store / "sessions" / "00000000000000ff"); // would be collected
    LocalClient reader(folder.store);
    EXPECT_EQ(get(reader, "small") + get(reader, "large"), content(1, 1000) + content(2, 500'000));
    EXPECT_EQ(keys(reader), (std::vector<std::string>{"large", "small"}));
    for (const LocalSettings& limits : {LocalSettings{.lockTimeout = 10ms}, {.interrupted = [] { return true; }}})
    {
        const auto isLocked = fails<UnknownErrorException>("process " + std::to_string(process) + " keeps");
        LocalClient writer(folder.store, limits);
        const auto expectLocked = [&] { EXPECT_THAT([&] { put(writer, "small", "new"); }, isLocked); };
        std::thread second(expectLocked);
        expectLocked();
        second.join();
        EXPECT_THAT([&] { LocalClient(folder.root / "new", limits); }, isLocked);
        const auto begin = std::chrono::steady_clock::now();
        EXPECT_THAT([&] { LocalClient(folder.root / "opening", limits); }, isLocked);
        EXPECT_LT(std::chrono::steady_clock::now() - begin, 8s);
        EXPECT_THAT([&] { checkLocalStore(folder.root / "new", {.interrupted = [] { return true; }}); },
            fails<UnknownErrorException>("because of an interrupt"));
        EXPECT_THAT([&] { checkLocalStore(folder.store, {.interrupted = [] { return true; }}); },
            fails<UnknownErrorException>("the index failed: interrupted"));
    }
    ASSERT_EQ(::kill(process, SIGCONT), 0);
    EXPECT_EQ(waitForProcess(process), 0);
    put(reader, "small", "new");
}

bool hasFewFreePages(const std::filesystem::path& store)
{
    return runSql(store, "SELECT freelist_count < 256 OR 3 * freelist_count < page_count FROM pragma_freelist_count, "
                         "pragma_page_count") == "1";
}

TEST(LocalClientTest, RemovalsOfSeveralThreadsGivePagesBack)
{
    const TestFolder folder;
    LocalClient client(folder.store);
    std::vector<std::jthread> threads;
    for (int thread = 0; thread < 4; ++thread)
    {
        threads.emplace_back(
            [&, thread]
            {
                for (int i = 0; i < 1'000; ++i)
                {
                    const std::string key = std::to_string(thread) + ' ' + std::to_string(i % 500);
                    i < 500 ? put(client, key, content(1, 4'096)) : client.deleteObject(key);
                }
            });
    }
    threads.clear();
    EXPECT_TRUE(hasFewFreePages(folder.store));
}

TEST(LocalClientTest, WritersThatShareACommitSucceedAndFailOnTheirOwn)
{
    const TestFolder folder;
    makeStore(folder.store);
    for (const std::string failing : {"ABORT", "ROLLBACK"}) // of one writer, of all that share its transaction
    {
        std::atomic<int> polls = 0; // of the writer that waits for the lock, while the others wait for it
        LocalClient client(folder.store, {.interrupted = [&] { return ++polls < 0; }});
        runSql(folder.store, "CREATE TRIGGER bad BEFORE INSERT ON objects WHEN substr(new.key, -3) = x'626164' BEGIN "
                             "SELECT RAISE(" +
                                 failing + ", 'refused'); END; PRAGMA wal_checkpoint(TRUNCATE)");
        const auto known = client.requireVersion("small", "none");
        put(client, "based", content(1, 100));
        const std::string upload = client.createMultipartUpload("based", client.getObjectParts("based").at(0).Tag);
        const std::vector<PartInfo> parts{uploadPart(client, "based", upload, 0, content(2, 100))};
        sqlite3* lock = nullptr;
        ASSERT_EQ(sqlite3_open((folder.store / "index.sqlite").c_str(), &lock), SQLITE_OK);
        ASSERT_EQ(sqlite3_exec(lock, "BEGIN IMMEDIATE", nullptr, nullptr, nullptr), SQLITE_OK);
        const auto begin = countCommits(folder.store);
        std::vector<std::jthread> writers;
        const auto write = [&](std::uint64_t i, std::string key, const std::string& reason)
        {
            key += key == "good" ? std::to_string(i) : "";
            std::string failure;
            try
            {
                put(client, key, content(i, 1000));
                EXPECT_TRUE(key == "based" || versionOf(get(client, key)) == i);
            }
            catch (const CloudException& error)
            {
                failure = error.detail().value();
            }
            EXPECT_TRUE(failure == reason || (reason != "" && failure.find(reason) < failure.size())) << failure;
        };
        for (std::uint64_t i = 0; i < 20;)
        {
            writers.emplace_back(write, i++, "bad", "refused");
            writers.emplace_back(write, i++, "small", "not the expected version");
            writers.emplace_back(write, i++, "based", "");
            writers.emplace_back(write, i++, "good", "");
        }
        writers.emplace_back([&] { EXPECT_NO_THROW(client.completeMultipartUpload("based", upload, parts)); });
        for (const int seen = polls; polls < seen + 100;)
        {
            std::this_thread::yield();
        }
        ASSERT_EQ(sqlite3_close(lock), SQLITE_OK);
        writers.clear(); // joins them
        EXPECT_LT(countCommits(folder.store) - begin, failing == "ROLLBACK" ? 12 : 8) << "for 10 puts and a completion";
        EXPECT_EQ(versionOf(get(client, "small")), 1U);
        runSql(folder.store, "DROP TRIGGER bad");
        checkStore(folder.store);
    }
}

TEST(LocalClientTest, ThreadsThatCompareAndSwapLoseNoUpdateBesideOthersThatPut)
{
    const TestFolder folder;
    LocalClient client(folder.store);
    put(client, "count", "0");
    const auto swap = [&](const std::string& own)
    {
        for (int done = 0; done < 12;)
            try
            {
                const auto expected = client.requireVersion("count", client.getObjectInfo("count").tag);
                put(client, "count", std::to_string(std::stoi(get(client, "count")) + 1));
                ++done;
            }
            catch (const CloudException&)
            {
                put(client, own, "");
            }
    };
    std::vector<std::jthread> threads;
    for (int thread = 0; thread < 8; ++thread)
    {
        threads.emplace_back(swap, std::to_string(thread));
    }
    threads.clear(); // joins them
    EXPECT_EQ(get(client, "count"), std::to_string(8 * 12));
}

TEST(LocalClientTest, DeletesManyObjectsAndNamesThoseThatFail)
{
    const TestFolder folder;
    LocalClient client(folder.store);
    for (const char* key : {"a", "b", "c", "d", "e"})
    {
        putParts(client, key, std::vector<std::string>(*key == 'b' ? 300 : 1, "x"));
    }
    const auto known = client.requireVersion("d", "none");
    runSql(folder.store, "CREATE TRIGGER stuck BEFORE DELETE ON objects WHEN old.key = x'63' "
                         "BEGIN SELECT RAISE(ABORT, 'stuck'); END");
    const auto failures = client.deleteObjects({"a", "b", "c", "d", "e"});
    EXPECT_THAT(failures, ElementsAre(Key("c"), Key("d")));
    EXPECT_THAT(
        [&] { std::rethrow_exception(failures.at("c")); }, fails<UnknownErrorException>("stuck", "deleteObject \"c\""));
    EXPECT_THAT(keys(client), ElementsAre("c", "d"));
}

TEST(LocalClientTest, AFlippedBitIsNeverServed)
{
    const TestFolder folder;
    const std::string older = content(99, 3000);
    std::map<std::string, std::string> objects;
    for (std::uint64_t i = 0; i < 20; ++i)
    {
        objects.emplace("key" + std::to_string(i), content(i, i == 0 ? 150'000 : 100 * i * i));
    }
    const int process = startProcess( // killed before the log is merged into the index
        [&]
        {
            LocalClient client(folder.store);
            for (const auto& [key, bytes] : objects)
            {
                put(client, key, older);
                put(client, key, bytes);
            }
            ::raise(SIGKILL);
        });
    EXPECT_EQ(waitForProcess(process), -1);
    const path killed = folder.root / "killed";
    rename(folder.store, killed);
    const auto readAll = [&]
    {
        LocalClient client(folder.store);
        std::string token;
        std::size_t keys = 0;
        for (const ObjectEntry& entry : client.listObjects("", token, {}))
        {
            EXPECT_THAT(get(client, entry.key), AnyOf(objects[entry.key], older)) << entry.key;
            ++keys;
        }
        return keys;
    };
    const auto read = [&] { EXPECT_EQ(readAll(), objects.size()); };
    std::size_t kept = 0;
    const auto checkAndRepair = [&]
    {
        std::vector<Damage> damages;
        CheckOptions options;
        options.report = [&](const Damage& damage) { damages.push_back(damage); };
        EXPECT_EQ(checkLocalStore(folder.store, options).repaired, 0U);
        EXPECT_THAT(damages, SizeIs(1));
        options.repair = true;
        try
        {
            EXPECT_GT(checkLocalStore(folder.store, options).repaired, 0U);
            EXPECT_THAT(damages.back().repair, AllOf(HasSubstr("damaged"), Not(HasSubstr("\n"))));
            EXPECT_EQ(checkLocalStore(folder.store, options).damaged, 0U);
            kept += readAll();
        }
        catch (const CloudException& error)
        {
            EXPECT_THAT(error.detail().value_or(""), HasSubstr("nothing can be read from the index"));
        }
    };
    for (const char* loss : {"rm store/index.sqlite-wal",
             "cd store && rm index.sqlite-wal index.sqlite-end && mkfifo index.sqlite-wal index.sqlite-end",
             "rm store/index.sqlite-shm && mkdir store/index.sqlite-shm",
             "dd if=/dev/zero of=store/index.sqlite-wal bs=4096 count=1 conv=notrunc status=none"})
    {
        copy(killed, folder.store, std::filesystem::copy_options::recursive);
        EXPECT_EQ(shell(folder, loss), 0);
        EXPECT_THAT(readAll, fails<UnknownErrorException>("the index is damaged")) << loss;
        checkAndRepair();
        remove_all(folder.store);
    }
    for (const bool isClosed : {false, true})
    {
        if (isClosed)
        {
            rename(killed, folder.store);
            read(); // merges the log, and leaves it empty
            rename(folder.store, killed);
        }
        std::size_t found = 0;
        for (const auto& file : std::filesystem::recursive_directory_iterator(killed))
        {
            const std::size_t size = file.is_regular_file() ? file.file_size() : 0;
            for (std::size_t offset = 0, step = 1; offset < size; offset += step)
            {
                step = offset < 128 ? 17 : size / 15 + 1;
                copy(killed, folder.store, std::filesystem::copy_options::recursive);
                std::fstream flipped(folder.store / relative(file.path(), killed));
                flipped.seekg(static_cast<std::streamoff>(offset));
                const int byte = flipped.get();
                flipped.seekp(static_cast<std::streamoff>(offset));
                flipped.put(static_cast<char>(byte ^ (1 << (offset % 8))));
                flipped.close();
                SCOPED_TRACE(file.path().filename().native() + " at " + std::to_string(offset));
                try
                {
                    read();
                }
                catch (const CloudException&)
                {
                    ++found;
                    checkAndRepair();
                }
                remove_all(folder.store);
            }
        }
        EXPECT_GT(found, 20U);
        EXPECT_GT(kept, 10 * found) << "of 20 objects";
        kept = 0;
    }
}

TEST(LocalClientTest, ARepairKeepsTheOldIndexAndKeepsOthersFromIt)
{
    const TestFolder folder;
    makeStore(folder.store);
    const auto damageIt = [&]
    { ASSERT_EQ(shell(folder, "rm -f store/index.sqlite-shm && mkfifo store/index.sqlite-shm"), 0); };
    const auto interrupted = [&]
    {
        damageIt();
        checkLocalStore(folder.store, {.repair = true, .interrupted = [] { return true; }});
    };
    const int reader = startProcess(
        [&]
        {
            LocalClient client(folder.store);
            get(client, "small");
            ::raise(SIGSTOP);
        });
    ASSERT_EQ(::waitpid(reader, nullptr, WUNTRACED), reader);
    EXPECT_THAT(interrupted, fails<UnknownErrorException>("process " + std::to_string(reader) + " keeps the index"));
    ASSERT_EQ(::kill(reader, SIGKILL), 0);
    EXPECT_EQ(waitForProcess(reader), -1);
    EXPECT_THAT(interrupted, fails<UnknownErrorException>("the repair of the index was interrupted"));
    EXPECT_FALSE(exists(folder.store / "index.sqlite.new"));
    for (const char* kept : {"damaged/index-3/index.sqlite", "damaged/index-4/index.sqlite"})
    {
        damageIt();
        sqlite3* early = nullptr; // opens the index before the repair, and reads it after
        const path file = folder.store / "index.sqlite";
        EXPECT_EQ(sqlite3_open_v2(file.c_str(), &early, SQLITE_OPEN_READWRITE, "cloudprovider-checked"), SQLITE_OK);
        EXPECT_EQ(checkLocalStore(folder.store, {.repair = true}).repaired, 1U);
        EXPECT_EQ(sqlite3_exec(early, "SELECT * FROM store", nullptr, nullptr, nullptr), SQLITE_READONLY);
        EXPECT_EQ(sqlite3_close(early), SQLITE_OK);
        EXPECT_TRUE(exists(folder.store / kept));
    }
    ASSERT_EQ(shell(folder, "cd store && mv index.sqlite index.sqlite.new && cp damaged/index-4/*-wal ."), 0)
        << "as a repair leaves it that is killed while it moves the old index aside";
    LocalClient client(folder.store);
    EXPECT_EQ(get(client, "small") + get(client, "large"), content(1, 1000) + content(2, 500'000));

    uploadPart(client, "k", client.createMultipartUpload("k", ""), 0, content(1, 1000));
    runSql(folder.store, "DELETE FROM contents WHERE id IN (SELECT content FROM upload_parts)");
    EXPECT_EQ(checkLocalStore(folder.store, {}).damaged, 1U);
    EXPECT_EQ(checkLocalStore(folder.store, {.repair = true}).repaired, 1U);
    EXPECT_THAT(client.pendingUploads(), IsEmpty());
}

TEST(LocalClientTest, ASecondRepairLeavesARepairedIndexAlone)
{
    const TestFolder folder;
    makeStore(folder.store);
    const std::string page = runSql(folder.store, "PRAGMA page_count"); // the last one loses its checksum
    ASSERT_EQ(
        shell(folder, "dd if=/dev/zero of=store/index.sqlite bs=8 count=1 conv=notrunc status=none seek=$((512 * " +
                          page + " - 1))"),
        0);
    const int lock = ::open(folder.store.c_str(), O_RDONLY);
    EXPECT_EQ(::flock(lock, LOCK_EX), 0);
    int calls = 0; // few while the index is read, many while the repair waits for the lock
    const auto repairFirst = [&]
    {
        if (++calls == 100)
        {
            ::close(lock);
            EXPECT_GT(checkLocalStore(folder.store, {.repair = true}).repaired, 0U);
        }
        return false;
    };
    EXPECT_EQ(checkLocalStore(folder.store, {.repair = true, .interrupted = repairFirst}).damaged, 0U);
    EXPECT_GE(calls, 100);
}

TEST(LocalClientTest, UpgradesAnIndexWithoutChecksums)
{
    const TestFolder folder;
    makeStore(folder.store);
    const std::string session = runSql(folder.store, "SELECT session FROM contents WHERE id = 4");
    const std::string data = runSql(folder.store, "SELECT hex(data) FROM contents WHERE id = 2");
    ASSERT_EQ(shell(folder, "rm store/index.sqlite*"), 0);
    std::string sql =
        "PRAGMA journal_mode = WAL; PRAGMA application_id = 0x434C4653; PRAGMA user_version = 1;"
        "CREATE TABLE store (next_id); INSERT INTO store VALUES (5);"
        "CREATE TABLE objects (key BLOB PRIMARY KEY, id, size, modified) WITHOUT ROWID;"
        "INSERT INTO objects VALUES (x'736d616c6c', 1, 1000, 7), (x'6c61726765', 3, 500000, 8);"
        "CREATE TABLE object_parts (object, offset, content, PRIMARY KEY (object, offset)) WITHOUT ROWID;"
        "INSERT INTO object_parts VALUES (1, 0, 2), (3, 0, 4);"
        "CREATE TABLE uploads (id INTEGER PRIMARY KEY, key, created); INSERT INTO uploads VALUES (0, 'k', 9);"
        "CREATE TABLE upload_parts (upload, number, content, PRIMARY KEY (upload, number)) WITHOUT ROWID;"
        "CREATE TABLE contents (id INTEGER PRIMARY KEY, refs, size, session, data);"
        "INSERT INTO contents VALUES (2, 1, 1000, NULL, x'" +
        data + "'), (4, 1, 500000, " + session + ", NULL)";
    runSql(folder.store, sql, "unix");
    {
        LocalClient client(folder.store);
        EXPECT_EQ(versionOf(get(client, "small")), 1U);
        EXPECT_EQ(versionOf(get(client, "large")), 2U);
        EXPECT_THAT(client.pendingUploads(), IsEmpty());
        put(client, "small", content(3, 100'000));
    }
    checkStore(folder.store);
    EXPECT_EQ(runSql(folder.store, "PRAGMA auto_vacuum"), "2");
}

TEST(LocalClientTest, OnlyItsUserHasAccess)
{
    using std::filesystem::perms;
    const TestFolder folder;
    const path made = folder.root / "made";
    const mode_t before = ::umask(0);
    LocalClient open(made / "store");
    put(open, "large", content(1, 100'000));
    ::umask(before);
    for (const auto& entry : std::filesystem::recursive_directory_iterator(folder.root))
    {
        EXPECT_EQ(entry.status().permissions(), entry.is_directory() ? perms(0700) : perms(0600)) << entry.path();
    }

    ASSERT_EQ(::chmod(folder.root.c_str(), 0755) + ::chmod(made.c_str(), 0555), 0);
    const std::tuple<mode_t, path, const char*> rows[] = {{0, made / "store", "Permission denied"},
        {0444, made / "store", "Permission denied"}, {0700, made / "new" / "store", "creating"}};
    for (const auto& [mode, store, reason] : rows)
    {
        ASSERT_EQ(::chmod((made / "store").c_str(), mode), 0);
        const bool isRoot = ::getuid() == 0; // root is denied nothing
        EXPECT_EQ(isRoot ? ::seteuid(65534) : 0, 0);
        const auto opening = [&store = store] { LocalClient client(store); };
        EXPECT_THAT(opening, fails<PermissionDeniedException>(reason));
        EXPECT_EQ(isRoot ? ::seteuid(0) : 0, 0);
    }
    ASSERT_EQ(::chmod(made.c_str(), 0700), 0); // so that it can be removed
}

TEST(LocalClientTest, UnchangedPartsAreSharedAndNotCopied)
{
    const TestFolder folder;
    LocalClient client(folder.store);
    putParts(client, "object", {content(1, 100'000), content(2, 100'000), content(3, 1000)});
    const auto before = files(folder.store / "contents").size();

    const std::string upload = client.createMultipartUpload("object", "");
    std::vector<PartInfo> parts = client.getObjectParts("object");
    parts[1] = uploadPart(client, "object", upload, 1, content(4, 100'000));
    EXPECT_EQ(client.copyPart("object", upload, parts[0]), parts[0].Tag);
    EXPECT_EQ(client.copyPart("object", upload, parts[2]), parts[2].Tag);
    EXPECT_EQ(files(folder.store / "contents").size(), before + 1);
    client.completeMultipartUpload("object", upload, parts);
    EXPECT_EQ(files(folder.store / "contents").size(), before);
}

TEST(LocalClientTest, ReadsManyPartsWithFewDescriptorsAndFewPartsFromOneVersion)
{
    const TestFolder folder;
    LocalClient client(folder.store, nothingInline);
    std::vector<std::string> parts;
    while (parts.size() < 200)
    {
        parts.push_back(content(parts.size(), 100));
    }
    putParts(client, "object", parts);
    rlimit before = {};
    ASSERT_EQ(::getrlimit(RLIMIT_NOFILE, &before), 0);
    const rlimit few{64, before.rlim_max};
    ASSERT_EQ(::setrlimit(RLIMIT_NOFILE, &few), 0);
    EXPECT_EQ(get(client, "object"), boost::algorithm::join(parts, ""));
    ASSERT_EQ(::setrlimit(RLIMIT_NOFILE, &before), 0);

    parts.resize(16);
    CallbackBuffer replacing("", [&] { putParts(client, "object", parts); });
    std::ostream out(&replacing);
    EXPECT_THAT([&] { client.getObjectRange("object", out, 0, 0); }, fails<UnknownErrorException>("was replaced"));
    CallbackBuffer removing("", [&] { client.deleteObject("object"); });
    std::ostream wholeOut(&removing);
    client.getObjectRange("object", wholeOut, 0, 0);
    EXPECT_EQ(removing.str(), boost::algorithm::join(parts, ""));
}

TEST(LocalClientTest, AFullDiskLeavesEveryObjectAsItIs)
{
    constexpr int notAllowed = 77; // to mount: for ordinary users, and for root in most containers
    const TestFolder folder;
    const int process = startProcess(
        [&]
        {
            if (::unshare(CLONE_NEWNS) != 0 || ::mount("none", "/", nullptr, MS_REC | MS_PRIVATE, nullptr) != 0 ||
                ::mount("none", folder.root.c_str(), "tmpfs", 0, "size=20m") != 0)
            {
                ::_exit(notAllowed);
            }
            LocalClient client(folder.store);
            put(client, "small", content(1, 1000));
            putParts(client, "large", {content(2, 300'000), content(3, 300'000)});
            for (std::uint64_t i = 0; i < 200; ++i)
            {
                put(client, "old" + std::to_string(i), content(i, 1000));
            }
            runSql(folder.store,
                "BEGIN; UPDATE store SET next_id = 20000; INSERT INTO objects VALUES (x'68756765', 1000, "
                "6000, 7); CREATE TEMP TABLE part AS WITH n(i) AS (VALUES (10001) UNION ALL SELECT "
                "i + 1 FROM n WHERE i < 16000) SELECT i FROM n; INSERT INTO contents SELECT "
                "i, 1, 1, 255, zeroblob(640), NULL FROM part; INSERT INTO object_parts SELECT "
                "1000, i, i FROM part; COMMIT"); // an object of 6,000 parts of 5 MiB, without its files
            const auto expectFull = [&](const std::function<void()>& call)
            {
                EXPECT_THAT(call, fails<UnknownErrorException>("No space left on device"));
                EXPECT_THAT(files(folder.store / "incoming"), IsEmpty());
            };
            expectFull([&] { put(client, "large", content(4, 20'000'000)); });
            shell(folder, "head -c 20000000 /dev/zero > filler 2> /dev/null");
            // The index can grow for a while, within the log that it has written before. With a little more room, a
            // file can be written, but the transaction that adds it fails.
            LocalClient clientWithFiles(folder.store, nothingInline);
            for (const std::string room : {"0", "100K", "4K"})
            {
                shell(folder, "truncate -s -" + room + " filler");
                LocalClient& filling = room == "0" ? client : clientWithFiles;
                std::atomic<std::uint64_t> next = 0;
                const auto fill = [&]
                {
                    for (std::uint64_t i = 0; (i = ++next) < 10'000;)
                    {
                        put(filling, "more" + std::to_string(i), content(i, 1000));
                        EXPECT_EQ(versionOf(get(filling, "more" + std::to_string(i))), i);
                    }
                };
                std::vector<std::jthread> others; // that share commits, for which there is no room
                while (room == "0" && others.size() < 4)
                {
                    others.emplace_back([&] { EXPECT_THROW(fill(), UnknownErrorException); });
                }
                others.clear();
                expectFull(fill);
            }
            EXPECT_EQ(versionOf(get(client, "small")), 1U);
            EXPECT_EQ(get(client, "large"), content(2, 300'000) + content(3, 300'000));

            shell(folder, "cat /dev/zero > rest 2> /dev/null");
            const auto room = [&] { return std::filesystem::space(folder.root).available; };
            EXPECT_EQ(room(), 0U);
            {
                LocalClient opened(folder.store);
                std::string token;
                const std::vector<ObjectEntry> entries = opened.listObjects("old", token, {});
                EXPECT_EQ(entries.size(), 200U);
                for (const ObjectEntry& entry : entries)
                {
                    EXPECT_EQ(get(opened, entry.key).size(), 1000U);
                    opened.deleteObject(entry.key);
                    shell(folder, "cat /dev/zero > rest 2> /dev/null");
                }
                EXPECT_THAT(opened.deleteObjects(keys(opened, "more")), IsEmpty());
                EXPECT_THAT(keys(opened), ElementsAre("huge", "large", "small"));
                opened.deleteObject("huge");
            }
            EXPECT_TRUE(hasFewFreePages(folder.store));
            std::filesystem::remove(folder.root / "filler");
            put(client, "small", content(5, 200'000));
            EXPECT_EQ(versionOf(get(client, "small")), 5U);
            checkStore(folder.store);
        });
    const int status = waitForProcess(process);
    if (status == notAllowed)
    {
        GTEST_SKIP() << "this machine does not let the test mount a small disk";
    }
    EXPECT_EQ(status, 0);
}

} // namespace storage::clients::test
