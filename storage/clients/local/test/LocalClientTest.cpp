#include "TestStore.hpp"

#include <storage/cloudprovider/CloudExceptions.hpp>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <fstream>
#include <functional>
#include <map>
#include <memory>
#include <sstream>

#include <fcntl.h>
#include <sched.h>
#include <sys/mount.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

namespace storage::clients::test
{

namespace
{

using cloudprovider::CloudException;
using cloudprovider::InvalidLocationException;
using cloudprovider::PartInfo;
using cloudprovider::PermissionDeniedException;
using cloudprovider::UnknownErrorException;
using ::testing::HasSubstr;

void write(const std::filesystem::path& path, const std::string& bytes)
{
    std::ofstream(path, std::ios::binary) << bytes;
}

// Everything below a folder, with a hash of the contents. SQLite's auxiliary files come and go with a look.
std::map<std::string, std::size_t> tree(const std::filesystem::path& folder)
{
    std::map<std::string, std::size_t> found;
    for (const auto& entry : std::filesystem::recursive_directory_iterator(folder))
    {
        const std::string name = entry.path().filename();
        if (name != "index.sqlite-wal" && name != "index.sqlite-shm")
        {
            std::ostringstream bytes;
            bytes << entry.is_directory() << std::ifstream(entry.path(), std::ios::binary).rdbuf();
            found[entry.path()] = std::hash<std::string>()(bytes.str());
        }
    }
    return found;
}

// The detail of the exception that the call must throw, and nothing derived from it or else.
template <typename Expected>
std::string detailOf(const std::function<void()>& call)
{
    try
    {
        call();
    }
    catch (const CloudException& error)
    {
        EXPECT_EQ(typeid(error).name(), typeid(Expected).name()) << error.what();
        EXPECT_EQ(error.detail().value_or("").find('\n'), std::string::npos);
        return error.detail().value_or("");
    }
    ADD_FAILURE() << "nothing was thrown";
    return "";
}

// A store with one object in the index and one in a file, closed.
void makeStore(const std::filesystem::path& store)
{
    LocalClient client(store);
    put(client, "small", content(1, 1000));
    put(client, "large", content(2, 500'000));
}

} // namespace

TEST(LocalClientTest, RefusesOtherDirectoriesAndLeavesThemAsTheyAre)
{
    using Path = std::filesystem::path;
    using Prepare = std::function<void(const Path& store)>;
    const auto cookies = [](const Path& store)
    {
        std::filesystem::create_directory(store);
        runSql(store, "CREATE TABLE cookies (name)");
    };
    const auto letter = [](const Path& store)
    {
        std::filesystem::create_directory(store);
        write(store / "letter.txt", "mine");
    };
    const auto changed = [](const std::function<void(const Path& index)>& change)
    {
        return [=](const Path& store)
        {
            makeStore(store);
            change(store / "index.sqlite");
        };
    };
    const std::tuple<Prepare, bool, const char*> rows[] = {// how it came about, whether it is a store, the reason
        {[](const Path& store) { write(store, "no directory"); }, false, "is not a directory"},
        {letter, false, "is no store: it has other content"},
        {changed([](const Path& index) { std::filesystem::remove(index); }), false,
            "is no store: it has other content"},
        {cookies, false, "its index is another program's"},
        {changed([](const Path& index) { write(index, content(3, 8192)); }), true, "the index is damaged"},
        {changed([](const Path& index) { write(index, ""); }), true, "the index is damaged: it is empty"},
        {changed([](const Path& index) { runSql(index.parent_path(), "PRAGMA user_version = 2"); }), true,
            "has version 2, this program knows version 1"}};
    for (const auto& [prepare, isStore, reason] : rows)
    {
        SCOPED_TRACE(reason);
        const TestFolder folder;
        prepare(folder.store());
        const auto before = tree(folder.path());
        const auto open = [&] { LocalClient client(folder.store()); };
        const std::string detail =
            isStore ? detailOf<UnknownErrorException>(open) : detailOf<InvalidLocationException>(open);
        EXPECT_THAT(detail, HasSubstr(reason));
        EXPECT_THAT(detail, HasSubstr("opening the local store \"" + folder.store().native() + '"'));
        EXPECT_EQ(tree(folder.path()), before);
    }
}

TEST(LocalClientTest, ReportsDamageAndServesNothingInPlaceOfTheBytes)
{
    using Path = std::filesystem::path;
    const auto file = [](const Path& store) { return store / "contents" / files(store / "contents").at(0); };
    const auto overwritePages = [](const Path& store)
    {
        std::fstream index(store / "index.sqlite", std::ios::in | std::ios::out | std::ios::binary);
        index.seekp(8192);
        index << content(3, std::filesystem::file_size(store / "index.sqlite") - 8192);
    };
    const std::pair<std::function<void(const Path& store)>, const char*> rows[] = {
        {[&](const Path& store) { std::filesystem::remove(file(store)); }, "there is no"},
        {[&](const Path& store) { std::filesystem::resize_file(file(store), 499'999); },
            "499999 bytes instead of 500000"},
        {[&](const Path& store) { std::filesystem::resize_file(file(store), 500'001); },
            "500001 bytes instead of 500000"},
        {[](const Path& store) { runSql(store, "DELETE FROM contents WHERE data IS NULL"); }, "lost a part"},
        {[](const Path& store) { runSql(store, "UPDATE object_parts SET offset = 9 WHERE content = 4"); }, "lost"},
        {overwritePages, "the index is damaged"}};
    for (const auto& [inflict, reason] : rows)
    {
        SCOPED_TRACE(reason);
        const TestFolder folder;
        makeStore(folder.store());
        inflict(folder.store());
        LocalClient client(folder.store());
        std::ostringstream out;
        const std::string detail = detailOf<UnknownErrorException>([&] { client.getObjectRange("large", out, 0, 0); });
        EXPECT_THAT(detail, HasSubstr("getObjectRange \"large\""));
        EXPECT_THAT(detail, HasSubstr("damaged"));
        EXPECT_THAT(detail, HasSubstr(reason));
        EXPECT_EQ(out.str(), "");
    }
}

TEST(LocalClientTest, RefusedAccessIsPermissionDenied)
{
    const TestFolder folder;
    makeStore(folder.store());
    const auto openAsOrdinaryUser = [&](const std::filesystem::path& store)
    {
        const bool isRoot = ::getuid() == 0; // whom the system refuses nothing
        EXPECT_EQ(isRoot ? ::seteuid(65534) : 0, 0);
        const std::string detail = detailOf<PermissionDeniedException>([&] { LocalClient client(store); });
        EXPECT_EQ(isRoot ? ::seteuid(0) : 0, 0);
        return detail;
    };
    for (const mode_t mode : {0000U, 0444U})
    {
        ASSERT_EQ(::chmod(folder.store().c_str(), mode), 0);
        EXPECT_THAT(openAsOrdinaryUser(folder.store()), HasSubstr("Permission denied"));
    }
    ASSERT_EQ(::chmod(folder.path().c_str(), 0555), 0);
    EXPECT_THAT(openAsOrdinaryUser(folder.path() / "new" / "store"), HasSubstr("creating"));
}

TEST(LocalClientTest, OnlyItsUserHasAccess)
{
    const TestFolder folder;
    const mode_t before = ::umask(0);
    LocalClient client(folder.path() / "new" / "store");
    put(client, "large", content(1, 100'000));
    ::umask(before);
    const auto permissions = [](const auto& path) { return std::filesystem::status(path).permissions(); };
    for (const auto& entry : std::filesystem::recursive_directory_iterator(folder.path()))
    {
        EXPECT_EQ(permissions(entry.path()),
            entry.is_directory() ? std::filesystem::perms(0700) : std::filesystem::perms(0600))
            << entry.path();
    }
}

TEST(LocalClientTest, UnchangedPartsAreSharedAndNotCopied)
{
    const TestFolder folder;
    LocalClient client(folder.store());
    putParts(client, "object", {content(1, 100'000), content(2, 100'000), content(3, 1000)});
    const auto before = files(folder.store() / "contents");

    const std::string upload = client.createMultipartUpload("object", "");
    std::vector<PartInfo> parts = client.getObjectParts("object");
    std::istringstream in(content(4, 100'000));
    parts[1].Tag = client.uploadPart("object", upload, parts[1], in);
    for (const std::size_t i : {0U, 2U})
    {
        EXPECT_EQ(client.copyPart("object", upload, parts[i]), parts[i].Tag);
    }
    EXPECT_EQ(files(folder.store() / "contents").size(), before.size() + 1);
    client.completeMultipartUpload("object", upload, parts);

    EXPECT_EQ(get(client, "object"), content(1, 100'000) + content(4, 100'000) + content(3, 1000));
    EXPECT_EQ(files(folder.store() / "contents").size(), before.size());
    checkStore(folder.store());
}

TEST(LocalClientTest, ReadsManyPartsWithFewDescriptors)
{
    const TestFolder folder;
    LocalClient client(folder.store(), everythingInFiles);
    std::vector<std::string> parts(200);
    std::string whole;
    for (std::size_t i = 0; i < parts.size(); ++i)
    {
        parts[i] = content(i, 100);
        whole += parts[i];
    }
    putParts(client, "object", parts);
    rlimit before = {};
    ASSERT_EQ(::getrlimit(RLIMIT_NOFILE, &before), 0);
    rlimit few = before;
    few.rlim_cur = 64;
    ASSERT_EQ(::setrlimit(RLIMIT_NOFILE, &few), 0);
    EXPECT_EQ(get(client, "object"), whole);
    ASSERT_EQ(::setrlimit(RLIMIT_NOFILE, &before), 0);
}

TEST(LocalClientTest, AFullDiskLeavesEveryObjectAsItIs)
{
    constexpr int refused = 77; // neither users nor roots of most containers may mount
    const TestFolder folder;
    const int process = startProcess(
        [&]
        {
            if (::unshare(CLONE_NEWNS) != 0 || ::mount("none", "/", nullptr, MS_REC | MS_PRIVATE, nullptr) != 0 ||
                ::mount("none", folder.path().c_str(), "tmpfs", 0, "size=4m") != 0)
            {
                ::_exit(refused);
            }
            LocalClient client(folder.store());
            put(client, "small", content(1, 1000));
            putParts(client, "large", {content(2, 300'000), content(3, 300'000)});

            const std::string full = "No space left on device";
            const std::string upload = client.createMultipartUpload("large", "");
            const std::string tooLarge = content(4, 4'000'000);
            for (const bool nothingLeft : {false, true})
            {
                if (nothingLeft)
                {
                    write(folder.path() / "filler", std::string(4'000'000, 'x'));
                }
                EXPECT_THAT(detailOf<UnknownErrorException>([&] { put(client, "large", tooLarge); }), HasSubstr(full));
                std::istringstream in(tooLarge);
                EXPECT_THAT(detailOf<UnknownErrorException>(
                                [&] {
                                    client.uploadPart("large", upload, {0, 0, tooLarge.size(), ""}, in);
                                }),
                    HasSubstr(full));
                EXPECT_EQ(files(folder.store() / "incoming"), std::vector<std::string>());
            }
            // The index still has room for a while, in the log that it has written before.
            const std::string more = detailOf<UnknownErrorException>(
                [&]
                {
                    for (std::uint64_t i = 0; i < 1000; ++i)
                    {
                        put(client, "more" + std::to_string(i), content(i, 60'000));
                    }
                });
            EXPECT_THAT(more, HasSubstr(full));
            EXPECT_EQ(versionOf(get(client, "small")), 1U);
            EXPECT_EQ(get(client, "large"), content(2, 300'000) + content(3, 300'000));

            std::filesystem::remove(folder.path() / "filler");
            put(client, "small", content(5, 200'000));
            EXPECT_EQ(versionOf(get(client, "small")), 5U);
            checkStore(folder.store());
        });
    int status = 0;
    ASSERT_EQ(::waitpid(process, &status, 0), process);
    if (WIFEXITED(status) && WEXITSTATUS(status) == refused)
    {
        GTEST_SKIP() << "this machine does not let the test mount a small disk";
    }
    EXPECT_EQ(status, 0);
}

} // namespace storage::clients::test
