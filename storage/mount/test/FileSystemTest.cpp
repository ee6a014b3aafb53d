#include "FileSystem.hpp"

#include <storage/clients/common/TransientException.hpp>
#include <storage/clients/decorators/FaultyClient.hpp>
#include <storage/clients/memory/MemoryClient.hpp>
#include <storage/cloudprovider/CloudExceptions.hpp>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <atomic>
#include <cerrno>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <functional>
#include <iterator>
#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <random>
#include <set>
#include <string>
#include <thread>
#include <vector>

namespace storage::mount
{

using clients::Operation;
using namespace testing;
using namespace std::chrono_literals;

namespace
{

std::string bytesOf(std::size_t size, unsigned seed)
{
    std::string bytes(size, '\0');
    std::ranges::generate(bytes, [next = std::minstd_rand(seed + 1)]() mutable { return static_cast<char>(next()); });
    return bytes;
}

/// A mounted store in memory, used through paths as programs do.
class FileSystemTest : public Test
{
protected:
    ~FileSystemTest() override
    {
        handles.clear();
        files.reset();
        std::filesystem::remove_all(folder);
    }

    /// Mount, after a process that was killed if there was one.
    void mount(std::chrono::milliseconds timeout = 0ms, bool hasSmallParts = false)
    {
        handles.clear();
        files.reset();
        files = std::make_unique<FileSystem>(hasSmallParts ? storeOfSmallParts : store,
            FileSystemSettings{.folder = folder, .attributeTimeout = timeout});
        files->recover();
    }

    /// @return the node of a path, without a reference
    NodeId find(const std::string& path)
    {
        NodeId node = rootId;
        for (std::size_t begin = 0; begin < path.size();)
        {
            const std::size_t end = std::min(path.find('/', begin), path.size());
            const auto found = files->lookup(node, path.substr(begin, end - begin));
            if (!found)
            {
                throw Failure(ENOENT, path);
            }
            references.push_back(found->node);
            node = found->node;
            begin = end + 1;
        }
        return node;
    }

    static std::string nameOf(const std::string& path) { return path.substr(path.rfind('/') + 1); }
    NodeId folderOf(const std::string& path) { return find(path.substr(0, std::max(path.rfind('/') + 1, 1UL) - 1)); }

    FileHandle& open(const std::string& path)
    {
        const auto known = handles.find(path);
        return known != handles.end() ? known->second : handles.emplace(path, files->open(find(path))).first->second;
    }
    void create(const std::string& path)
    {
        handles.emplace(path, files->create(folderOf(path), nameOf(path), 0644).second);
    }
    void write(const std::string& path, std::uint64_t offset, const std::string& bytes)
    {
        files->write(open(path), offset, bytes.data(), bytes.size());
    }
    std::string read(const std::string& path)
    {
        std::string bytes(files->attributes(find(path)).size + 10, '?');
        bytes.resize(files->read(open(path), 0, bytes.data(), bytes.size()));
        return bytes;
    }
    void close(const std::string& path)
    {
        const auto handle = handles.extract(path);
        files->flush(handle.mapped());
        files->release(handle.mapped());
    }
    /// Release a file without flushing it.
    void drop(const std::string& path)
    {
        const auto handle = handles.extract(path);
        handle ? files->release(handle.mapped()) : void();
    }
    void put(const std::string& path, const std::string& bytes)
    {
        create(path);
        write(path, 0, bytes);
        close(path);
    }
    void rename(const std::string& path, const std::string& newPath, bool replaces = true)
    {
        files->rename(folderOf(path), nameOf(path), folderOf(newPath), nameOf(newPath), replaces);
        for (auto handle = handles.begin(); handle != handles.end();)
        {
            const auto next = std::next(handle);
            if (handle->first == path || handle->first.starts_with(path + '/'))
            {
                auto moved = handles.extract(handle);
                moved.key().replace(0, path.size(), newPath);
                handles.insert(std::move(moved));
            }
            handle = next;
        }
    }
    std::set<std::string> list(const std::string& path)
    {
        FolderHandle handle = files->openFolder(find(path));
        files->list(handle, true);
        std::set<std::string> names;
        for (const auto& entry : handle.entries)
        {
            names.insert(entry.name);
        }
        files->release(handle);
        return names;
    }

    void emptyBucket()
    {
        for (const std::string& key : bucket->keys())
        {
            bucket->remove(key);
        }
    }

    std::vector<std::string> conflicts() const
    {
        std::vector<std::string> result;
        for (const auto& entry : std::filesystem::directory_iterator(folder / "conflicts"))
        {
            std::ifstream file(entry.path());
            result.emplace_back(std::istreambuf_iterator<char>(file), std::istreambuf_iterator<char>());
        }
        return result;
    }

    static int errorOf(const std::function<void()>& call)
    try
    {
        call();
        return 0;
    }
    catch (...)
    {
        return Failure::current().error();
    }

    const std::shared_ptr<clients::MemoryClient> bucket = std::make_shared<clients::MemoryClient>();
    const std::shared_ptr<clients::FaultyClient> client = std::make_shared<clients::FaultyClient>(bucket);
    MountedStore store{client};
    MountedStore storeOfSmallParts{client, 2048};
    const std::filesystem::path folder = []
    {
        std::string name = (std::filesystem::temp_directory_path() / "mount-test-XXXXXX").string();
        return std::filesystem::path(mkdtemp(name.data()));
    }();
    std::unique_ptr<FileSystem> files;
    std::map<std::string, FileHandle> handles; // by path
    std::vector<NodeId> references;
};

// A random program, compared with a map of paths. Stores fail and mounts are killed now and then; nothing is lost.
TEST_F(FileSystemTest, BehavesLikeAMapOfStrings)
{
    std::mt19937 random(static_cast<unsigned>(UnitTest::GetInstance()->random_seed()));
    const auto below = [&](std::size_t count) { return static_cast<std::size_t>(random() % count); };
    std::map<std::string, std::string> model;
    const std::string paths[] = {"a", "b", "d/a", "d/b", "d/e/a", "d/e/b."};
    const std::string folders[] = {"d", "d/e"};
    mount(0ms, true);
    files->createFolder(rootId, "d", 0755);
    files->createFolder(find("d"), "e", 0755);
    for (unsigned step = 0; step < 4'000; ++step)
    {
        const std::string path = paths[below(std::size(paths))];
        const bool exists = model.contains(path);
        const std::size_t operation = below(100);
        SCOPED_TRACE(Message() << "step " << step << ", operation " << operation << " of " << path);
        if (!exists)
        {
            create(path);
        }
        std::string& expected = model[path];
        if (operation < 35)
        {
            const std::size_t kind = below(100);
            const std::size_t offset = kind < 5    ? below(1U << 18)
                                       : kind < 50 ? expected.size()
                                                   : below(expected.size() + 100);
            const std::string bytes = bytesOf(1 + below(30'000), step);
            write(path, offset, bytes);
            expected.resize(std::max(expected.size(), offset + bytes.size()));
            expected.replace(offset, bytes.size(), bytes);
        }
        else if (operation < 40)
        {
            const std::size_t size = below(2) * below(expected.size() + 5'000);
            files->setAttributes(find(path), {.size = size, .mode = {}, .modified = {}});
            expected.resize(size);
        }
        else if (operation < 60)
        {
            ASSERT_TRUE(read(path) == expected);
        }
        else if (operation < 70)
        {
            files->sync(open(path));
        }
        else if (operation < 80)
        {
            open(path);
            close(path);
            ASSERT_TRUE(bucket->get(path) == expected);
        }
        else if (operation < 85)
        {
            files->removeFile(folderOf(path), nameOf(path));
            drop(path);
            model.erase(path);
        }
        else if (operation < 92)
        {
            const std::string target = paths[below(std::size(paths))];
            path != target ? drop(target) : void();
            rename(path, target);
            std::string bytes = expected;
            model.erase(path);
            model[target] = std::move(bytes);
        }
        else if (operation < 94)
        {
            rename("d", "f");
            rename("f", "d");
        }
        else if (operation < 96)
        {
            mount(below(2) * 1s, true);
        }
        else
        {
            std::set<std::string> names;
            for (const auto& [name, bytes] : model)
            {
                name.starts_with("d/e/") ? void(names.insert(nameOf(name))) : void();
            }
            ASSERT_EQ(list("d/e"), names);
        }
    }
    EXPECT_THAT(files->sendAll(), IsEmpty());
    for (const auto& [path, bytes] : model)
    {
        EXPECT_TRUE(bucket->get(path) == bytes) << path;
    }
    EXPECT_EQ(bucket->keys().size(), model.size() + std::size(folders));
}

TEST_F(FileSystemTest, ReportsAFailedUploadAndKeepsTheBytesUntilTheyAreStored)
{
    mount();
    put("a", "old");
    for (const auto moment : {clients::Fault::Moment::BeforeEffect, clients::Fault::Moment::AfterEffect})
    {
        const std::string bytes = moment == clients::Fault::Moment::BeforeEffect ? "new" : "newer";
        client->inject({Operation::PutObject, 0, moment,
            std::make_exception_ptr(clients::TransientException("Busy", "the store is busy"))});
        write("a", 0, bytes);
        EXPECT_EQ(errorOf([&] { files->sync(open("a")); }), ETIMEDOUT);
        // An earlier attempt that has taken effect is recognised.
        const int error = moment == clients::Fault::Moment::BeforeEffect ? ETIMEDOUT : 0;
        EXPECT_EQ(errorOf([&] { files->sync(open("a")); }), error);
        EXPECT_EQ(errorOf([&] { close("a"); }), error);
        EXPECT_EQ(read("a"), bytes);
        drop("a");
        EXPECT_EQ(files->sendAll().empty(), error == 0);
        client->clearFaults();
        mount(); // what is unsent survives the process
        EXPECT_THAT(files->sendAll(), IsEmpty());
        EXPECT_EQ(bucket->get("a"), bytes);
    }
}

TEST_F(FileSystemTest, NeverOverwritesOrMixesWhatAnotherProgramHasStored)
{
    mount();
    const std::string old = bytesOf(6U << 20, 1), foreign = bytesOf(6U << 20, 2);
    for (const bool isNew : {true, false})
    {
        SCOPED_TRACE(isNew);
        const std::string path = isNew ? "new" : "stored";
        isNew ? create(path) : put(path, old);
        write(path, 100, "ours");
        bucket->put(path, foreign);
        EXPECT_EQ(errorOf([&] { files->flush(open(path)); }), ESTALE);
        EXPECT_EQ(errorOf([&] { write(path, 0, "more"); }), ESTALE);
        EXPECT_EQ(errorOf([&] { close(path); }), ESTALE);
        EXPECT_EQ(bucket->get(path), foreign);
        EXPECT_EQ(read(path), foreign);
        drop(path);
    }
    // The old version is gone, so of that only what was written is left.
    EXPECT_THAT(conflicts(), UnorderedElementsAre(std::string(100, '\0') + "ours", EndsWith(std::string(1000, '\0'))));
    EXPECT_THAT(files->sendAll(), SizeIs(2));

    put("read", old);
    FileHandle reader = files->open(find("read"));
    char byte = 0;
    EXPECT_EQ(files->read(reader, 0, &byte, 1), 1U);
    bucket->put("read", foreign);
    EXPECT_EQ(errorOf([&] { files->read(reader, 5U << 20, &byte, 1); }), ESTALE);
    EXPECT_EQ(errorOf([&] { files->open(reader.node->id); }), ESTALE) << "so that the kernel looks it up again";
    EXPECT_EQ(read("read"), foreign);
    EXPECT_EQ(errorOf([&] { files->read(reader, 5U << 20, &byte, 1); }), ESTALE);
    files->release(reader);
}

// Whatever the mount does with a file that another program replaces or removes meanwhile.
TEST_F(FileSystemTest, LeavesVersionsOfOtherProgramsAsTheyAre)
{
    const auto dirty = [&] { write("a", 0, "OURS"); };
    const auto conflict = [&] { EXPECT_EQ(errorOf([&] { close(handles.begin()->first); }), ESTALE); };
    const struct
    {
        const char* name;
        bool isRemoved;
        std::function<void()> before, after;
        std::string key;
        bool isConflict;
    } cases[] = {
        {"stat, write", false, [&] { open("a"); },
            [&]
            {
                files->attributes(open("a").node->id);
                EXPECT_EQ(errorOf(dirty), ESTALE);
            },
            "a", false},
        {"write, rename", false, dirty,
            [&]
            {
                EXPECT_EQ(errorOf([&] { rename("a", "b"); }), ESTALE);
                conflict();
            },
            "a", true},
        {"rename, append", false,
            [&]
            {
                mount(1h);
                find("a");
            },
            [&]
            {
                rename("a", "b");
                write("b", files->attributes(find("b")).size, "+");
                close("b");
            },
            "b", false},
        {"write, rename the folder", true, [&] { write("d/a", 0, "OURS"); },
            [&]
            {
                bucket->remove("d/a");
                rename("d", "e");
                conflict();
            },
            "", true},
        {"truncate", false, [&] { open("a"); },
            [&]
            {
                files->setAttributes(open("a").node->id, {.size = 10});
                conflict();
            },
            "a", true},
        {"killed", true, dirty,
            [&]
            {
                mount();
                files->sendAll();
            },
            "", true},
        {"killed", false, dirty,
            [&]
            {
                mount();
                EXPECT_THAT(files->sendAll(), SizeIs(1));
            },
            "a", true},
        {"listing, append", false,
            [&]
            {
                mount(1h);
                list("");
            },
            [&]
            {
                EXPECT_EQ(errorOf([&] { files->open(find("a")); }), ESTALE) << "the kernel looks it up again";
                write("a", files->attributes(find("a")).size, "+");
                close("a");
            },
            "a", false},
    };
    for (const auto& each : cases)
    {
        SCOPED_TRACE(each.name);
        std::filesystem::remove_all(folder / "conflicts");
        std::filesystem::create_directory(folder / "conflicts");
        emptyBucket();
        bucket->put("a", "1234567890");
        bucket->put("d/a", "1234567890");
        mount();
        each.before();
        const std::string foreign(each.isConflict ? 10 : 20, 'f');
        each.isRemoved ? void(bucket->remove("a")) : bucket->put("a", foreign);
        each.after();
        drop(handles.empty() ? "" : handles.begin()->first);
        if (!each.key.empty())
        {
            EXPECT_THAT(bucket->get(each.key).value_or("none"), StartsWith(foreign));
        }
        EXPECT_THAT(conflicts(), SizeIs(each.isConflict ? 1 : 0));
    }

    bucket->put("a", "copied");
    mount(1h);
    client->setHook([&](Operation operation, const std::string&)
        { operation == Operation::DeleteObject ? bucket->put("a", "stored meanwhile") : void(); });
    rename("a", "c");
    client->setHook({});
    EXPECT_EQ(bucket->get("a"), "stored meanwhile");
    EXPECT_EQ(bucket->get("c"), "copied");
}

TEST_F(FileSystemTest, RecognisesWhatItHasStoredAlthoughTheResponseWasLost)
{
    const auto lose = [&](Operation operation, const std::function<void()>& call, int error)
    {
        client->inject({operation, 1, clients::Fault::Moment::AfterEffect,
            std::make_exception_ptr(clients::TransientException("Busy", "the response is lost"))});
        EXPECT_EQ(errorOf(call), error);
        client->clearFaults();
    };
    mount(1s);
    create("removed");
    write("removed", 0, "x");
    lose(
        Operation::PutObject, [&] { files->sync(open("removed")); }, ETIMEDOUT);
    files->removeFile(rootId, "removed");
    drop("removed");
    EXPECT_THAT(bucket->keys(), IsEmpty());

    put("a", "1234567890");
    write("a", 0, "A");
    lose(
        Operation::PutObject, [&] { files->sync(open("a")); }, ETIMEDOUT);
    write("a", 1, "B");
    files->sync(open("a"));
    EXPECT_EQ(bucket->get("a"), "AB34567890");

    write("a", 2, "C");
    lose(
        Operation::DeleteObject, [&] { rename("a", "b"); }, 0);
    mount();
    EXPECT_THAT(files->sendAll(), IsEmpty());
    EXPECT_EQ(bucket->get("b"), "ABC4567890");
    EXPECT_THAT(bucket->keys(), ElementsAre("b"));
}

TEST_F(FileSystemTest, ReadersSeeWhatAnotherProgramHasStored)
{
    mount(50ms);
    put("a", "ours_");
    for (int number = 0; number < 8; ++number)
    {
        const std::string bytes = "other" + std::to_string(number % 2); // of the same size, in the same second
        bucket->put("a", bytes);
        std::this_thread::sleep_for(60ms);
        number % 4 < 2 ? void(list("")) : void();
        find("a");
        EXPECT_EQ(read("a"), bytes);
        EXPECT_FALSE(open("a").keepsPages);
        drop("a");
        const FileHandle again = files->open(find("a"));
        EXPECT_TRUE(again.keepsPages);
        files->release(again);
    }
}

TEST_F(FileSystemTest, TwoWhoOpenAFileAtATimeReadOneVersion)
{
    mount();
    const std::string first(20, '1'), second(20, '2');
    bucket->put("a", first);
    const NodeId node = find("a");
    std::atomic<int> calls = 0;
    std::atomic<bool> mayGoOn = false;
    client->setHook(
        [&](Operation operation, const std::string&)
        {
            const bool isFirst = operation == Operation::GetObjectParts && calls++ == 0;
            isFirst ? mayGoOn.wait(false) : void();
        });
    std::jthread other([&] { errorOf([&] { files->release(files->open(node)); }); });
    while (calls == 0)
    {
        std::this_thread::yield();
    }
    const FileHandle file = files->open(node);
    std::string bytes(20, '?');
    files->read(file, 0, bytes.data(), 10);
    bucket->put("a", second);
    mayGoOn = true;
    mayGoOn.notify_all();
    other.join();
    EXPECT_EQ(errorOf([&] { files->read(file, 10, bytes.data() + 10, 10); }), ESTALE) << bytes;
    files->release(file);
}

TEST_F(FileSystemTest, ARemovedFileServesThoseWhoHaveItOpenAndNobodyElse)
{
    mount();
    const std::string bytes = bytesOf(6U << 20, 1);
    put("a", bytes);
    FileHandle& file = open("a");
    files->removeFile(rootId, "a");
    EXPECT_TRUE(files->attributes(file.node->id).isRemoved);
    EXPECT_NE(files->create(rootId, "a", 0644).first.inode, files->attributes(file.node->id).inode);
    files->removeFile(rootId, "a");
    files->write(file, 6U << 20, "more", 4);
    std::string got((6U << 20) + 4, '\0');
    EXPECT_EQ(files->read(file, 0, got.data(), got.size()), got.size());
    EXPECT_TRUE(got == bytes + "more");
    files->sync(file);
    mount();
    EXPECT_THAT(files->sendAll(), IsEmpty());
    EXPECT_THAT(bucket->keys(), IsEmpty());
}

TEST_F(FileSystemTest, SendsNoMoreThanItNeeds)
{
    mount(1h);
    std::vector<std::string> calls;
    std::mutex mutex;
    client->setHook(
        [&](Operation operation, const std::string& key)
        {
            const std::lock_guard lock(mutex);
            calls.push_back(std::string(name(operation)) + ' ' + key);
        });
    const auto callsOf = [&](const std::function<void()>& call)
    {
        calls.clear();
        call();
        std::ranges::sort(calls);
        return calls;
    };
    EXPECT_THAT(
        callsOf([&] { EXPECT_FALSE(files->lookup(rootId, "a")); }), ElementsAre("getObjectInfo a", "listObjects a/"));
    EXPECT_THAT(callsOf([&] { create("a"); }), IsEmpty()) << "the name is known to be free";
    write("a", 0, "1");
    rename("a", "b");
    EXPECT_THAT(callsOf([&] { close("b"); }), ElementsAre("putObject b"));
    list("");
    EXPECT_THAT(callsOf(
                    [&]
                    {
                        EXPECT_FALSE(files->lookup(rootId, "missing"));
                        EXPECT_TRUE(files->lookup(rootId, "b"));
                        EXPECT_EQ(read("b"), "1");
                    }),
        ElementsAre("getObjectRange b"))
        << "the folder was listed";
    drop("b");
    EXPECT_THAT(callsOf(
                    [&]
                    {
                        create("c");
                        files->flush(open("c"));
                    }),
        IsEmpty())
        << "shells close it twice";
    EXPECT_THAT(callsOf([&] { close("c"); }), ElementsAre("putObject c"));

    create("large");
    EXPECT_THAT(callsOf([&] { write("large", 0, bytesOf(95U << 20, 1)); }), Contains("uploadPart large").Times(9));
    EXPECT_THAT(callsOf(
                    [&]
                    {
                        write("large", 95U << 20, bytesOf(6U << 20, 1));
                        write("large", 0, "changed");
                    }),
        ElementsAre("uploadPart large"))
        << "parts are sent while it is written";
    EXPECT_THAT(callsOf([&] { close("large"); }),
        ElementsAre("completeMultipartUpload large", "uploadPart large", "uploadPart large"))
        << "the first one and the last one";
    EXPECT_THAT(callsOf(
                    [&]
                    {
                        write("large", 50U << 20, "x");
                        close("large");
                    }),
        Contains(StartsWith("uploadPart")).Times(1));
    EXPECT_THAT(callsOf(
                    [&]
                    {
                        files->setAttributes(find("large"), {.size = (50U << 20) - 1});
                        open("large");
                        close("large");
                    }),
        Contains(StartsWith("uploadPart")).Times(1));
}

TEST_F(FileSystemTest, MovesFoldersAsAWholeWhateverFails)
{
    const std::map<std::string, std::string> tree{{"", ""}, {"a", "1"}, {"b/", ""}, {"b/c", "22"}, {"b/d.", "333"}};
    for (unsigned failing = 1; failing <= 12; ++failing)
    {
        for (const bool isKilled : {false, true})
        {
            SCOPED_TRACE(Message() << failing << (isKilled ? " killed" : ""));
            mount();
            emptyBucket();
            for (const auto& [name, bytes] : tree)
            {
                bucket->put("f/" + name, bytes);
            }
            find("f");
            unsigned calls = 0;
            const std::filesystem::path records = folder / "records.sqlite";
            const std::filesystem::path killed = folder / "killed";
            client->setHook(
                [&](Operation operation, const std::string&)
                {
                    static std::mutex mutex;
                    const std::lock_guard lock(mutex);
                    const bool isCounted = changesStore(operation);
                    calls += isCounted;
                    for (const char* const file : {"", "-wal"})
                    {
                        isCounted&& isKilled&& calls == failing
                            ? void(std::filesystem::copy_file(records.native() + file, killed.native() + file,
                                  std::filesystem::copy_options::overwrite_existing))
                            : void();
                    }
                    isCounted && (calls == failing || (isKilled && calls > failing))
                        ? throw cloudprovider::UnknownErrorException("failed")
                        : void();
                });
            const int error = errorOf([&] { rename("f", "g"); });
            client->setHook({});
            if (isKilled)
            {
                files.reset();
                for (const char* const file : {"", "-wal"})
                {
                    std::error_code ignored; // not there: nothing has failed
                    std::filesystem::rename(killed.native() + file, records.native() + file, ignored);
                }
                mount();
            }
            std::vector<std::string> there;
            for (const std::string& key : bucket->keys())
            {
                there.push_back(key.substr(0, 2));
                EXPECT_EQ(bucket->get(key), tree.at(key.substr(2)));
            }
            const std::string folderKey = error == 0 || isKilled ? "g/" : "f/";
            const bool mayBeBoth = error == 0 && !isKilled && failing > 5; // deleting failed, and is tried again
            EXPECT_THAT(
                there, AllOf(Contains(folderKey).Times(5), SizeIs(mayBeBoth ? Matcher<std::size_t>(Ge(5)) : Eq(5))));
        }
    }
    const auto other = folder / "other";
    std::filesystem::create_directory(other);
    files = std::make_unique<FileSystem>(store, FileSystemSettings{.folder = other, .renameLimit = 4});
    EXPECT_EQ(errorOf([&] { rename("g", "h"); }), EXDEV);
    // What is left of failed moves touches nothing that was stored since.
    for (const Operation failing : {Operation::PutObject, Operation::DeleteObject})
    {
        mount();
        emptyBucket();
        bucket->put("d/x", "old");
        std::atomic<bool> isAway = false;
        client->setHook(
            [&](Operation operation, const std::string& key)
            {
                isAway = isAway || (operation == failing && key == (failing == Operation::PutObject ? "e/y" : "d/x"));
                isAway ? throw clients::TransientException("Busy", "the store is away") : void();
            });
        bucket->put("d/y", "old");
        EXPECT_EQ(errorOf([&] { rename("d", "e"); }), failing == Operation::PutObject ? ETIMEDOUT : 0);
        client->setHook({});
        bucket->put("d/x", "new");
        bucket->put("e/x", "new");
        mount();
        EXPECT_EQ(bucket->get("d/x"), "new");
        EXPECT_EQ(bucket->get("e/x"), "new");
        EXPECT_EQ(bucket->get(failing == Operation::PutObject ? "d/y" : "e/y"), "old");
    }
}

TEST_F(FileSystemTest, ShowsEveryKeyUnderANameOfItsOwn)
{
    mount();
    const std::map<std::string, std::string> names{{"a.", "a."}, {"x//y", "x/\u241B/y"}, {"./z", "\u241B./z"},
        {"../z", "\u241B../z"}, {"/r", "\u241B/r"}, {"\u241B", "\u241B\u241B"}, {"e\u241B", "e\u241B"}, {"%2F", "%2F"},
        {"line\nbreak", "line\nbreak"}};
    for (const auto& [key, path] : names)
    {
        bucket->put(key, key);
        EXPECT_EQ(read(path), key);
        EXPECT_THAT(list(path.substr(0, std::max(path.rfind('/') + 1, 1UL) - 1)), Contains(nameOf(path)));
        write(path, 0, "new");
        close(path);
        EXPECT_EQ(bucket->get(key), "new" + key.substr(std::min<std::size_t>(3, key.size())));
    }
    bucket->put("both", "hidden");
    bucket->put("both/inside", "1");
    EXPECT_EQ(read("both/inside"), "1");
    EXPECT_EQ(errorOf([&] { create(std::string(256, 'x')); }), ENAMETOOLONG);
    EXPECT_EQ(errorOf([&] { create("\xFF"); }), EILSEQ);
    EXPECT_EQ(errorOf([&] { files->createFolder(rootId, "\x01", 0755); }), EILSEQ);
}

TEST_F(FileSystemTest, ThreadsShareFilesAndFolders)
{
    mount(1ms);
    files->createFolder(rootId, "d", 0755);
    put("d/shared", "");
    std::vector<std::jthread> threads;
    for (unsigned thread = 0; thread < 4; ++thread)
    {
        threads.emplace_back(
            [&, thread]
            {
                const std::string own = "own" + std::to_string(thread);
                for (unsigned i = 0; i < 50; ++i)
                {
                    const auto folderNode = files->lookup(rootId, i % 2 == 0 ? "d" : "e");
                    if (!folderNode)
                    {
                        continue;
                    }
                    errorOf(
                        [&]
                        {
                            auto [attributes, file] = files->create(folderNode->node, own, 0644);
                            files->write(file, 0, own.data(), own.size());
                            files->release(file);
                            files->forget(attributes.node, 1);
                        });
                    errorOf(
                        [&] { files->rename(rootId, i % 2 == 0 ? "d" : "e", rootId, i % 2 == 0 ? "e" : "d", false); });
                    errorOf(
                        [&]
                        {
                            const auto shared = files->lookup(folderNode->node, "shared");
                            const FileHandle file = files->open(shared.value().node);
                            files->write(file, i, "x", 1);
                            char byte = 0;
                            files->read(file, 0, &byte, 1);
                            files->release(file);
                            files->forget(shared->node, 1);
                        });
                    errorOf([&] { files->removeFile(folderNode->node, own); });
                    files->forget(folderNode->node, 1);
                }
            });
    }
    threads.clear();
    EXPECT_THAT(files->sendAll(), IsEmpty());

    // A lookup that was begun before a write does not hide it.
    mount();
    create("written");
    const FileHandle file = open("written");
    const std::jthread other(
        [&](const std::stop_token& stop)
        {
            while (!stop.stop_requested())
            {
                files->attributes(file.node->id);
            }
        });
    for (std::size_t i = 0; i < 300; ++i)
    {
        files->write(file, i, "x", 1);
        files->sync(file);
        ASSERT_EQ(bucket->get("written"), std::string(i + 1, 'x'));
    }
}

} // namespace

} // namespace storage::mount
