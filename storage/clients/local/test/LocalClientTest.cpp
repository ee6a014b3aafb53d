#include "TestStore.hpp"

#include <storage/cloudprovider/CloudExceptions.hpp>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <fstream>
#include <functional>
#include <map>
#include <memory>
#include <ostream>
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

struct Refusal
{
    const char* name;
    std::function<void(const std::filesystem::path& store)> prepare;
    std::function<std::string(const std::function<void()>& call)> detail;
    const char* reason;
};

// The row's name alone in the names of the cases.
void PrintTo(const Refusal& row, std::ostream* out)
{
    *out << row.name;
}

class RefusalTest : public ::testing::TestWithParam<Refusal>
{
};

} // namespace

TEST_P(RefusalTest, TellsWhyAndLeavesTheDirectoryAsItIs)
{
    const TestFolder folder;
    GetParam().prepare(folder.store());
    const auto before = tree(folder.path());
    const std::string detail = GetParam().detail([&] { LocalClient client(folder.store()); });
    EXPECT_THAT(detail, HasSubstr(GetParam().reason));
    EXPECT_THAT(detail, HasSubstr("opening the local store \"" + folder.store().native() + '"'));
    EXPECT_EQ(tree(folder.path()), before);
}

INSTANTIATE_TEST_SUITE_P(LocalClient, RefusalTest,
    ::testing::Values(Refusal{"file", [](const auto& store) { write(store, "no directory"); },
                          detailOf<InvalidLocationException>, "is not a directory"},
        Refusal{"otherContent",
            [](const auto& store)
            {
                std::filesystem::create_directory(store);
                write(store / "letter.txt", "mine");
            },
            detailOf<InvalidLocationException>, "is no store: it has other content"},
        Refusal{"indexWithoutContents",
            [](const auto& store)
            {
                makeStore(store);
                std::filesystem::remove(store / "index.sqlite");
            },
            detailOf<InvalidLocationException>, "is no store: it has other content"},
        Refusal{"anotherProgramsDatabase",
            [](const auto& store)
            {
                std::filesystem::create_directory(store);
                runSql(store, "CREATE TABLE cookies (name)");
            },
            detailOf<InvalidLocationException>, "its index is another program's"},
        Refusal{"noDatabase",
            [](const auto& store)
            {
                makeStore(store);
                write(store / "index.sqlite", content(3, 8192));
            },
            detailOf<UnknownErrorException>, "the index is damaged"},
        Refusal{"emptiedIndex",
            [](const auto& store)
            {
                makeStore(store);
                write(store / "index.sqlite", "");
            },
            detailOf<UnknownErrorException>, "the index is damaged: it is empty"},
        Refusal{"laterVersion",
            [](const auto& store)
            {
                makeStore(store);
                runSql(store, "PRAGMA user_version = 2");
            },
            detailOf<UnknownErrorException>, "has version 2, this program knows version 1"}),
    [](const auto& row) { return std::string(row.param.name); });

namespace
{

struct Damage
{
    const char* name;
    std::function<void(const std::filesystem::path& store)> inflict;
    const char* reason;
};

void PrintTo(const Damage& row, std::ostream* out)
{
    *out << row.name;
}

class DamageTest : public ::testing::TestWithParam<Damage>
{
};

std::filesystem::path contentFile(const std::filesystem::path& store)
{
    return store / "contents" / files(store / "contents").at(0);
}

} // namespace

TEST_P(DamageTest, IsReportedAndNothingIsServedInPlaceOfTheBytes)
{
    const TestFolder folder;
    makeStore(folder.store());
    GetParam().inflict(folder.store());
    LocalClient client(folder.store());
    std::ostringstream out;
    const std::string detail = detailOf<UnknownErrorException>([&] { client.getObjectRange("large", out, 0, 0); });
    EXPECT_THAT(detail, HasSubstr("getObjectRange \"large\""));
    EXPECT_THAT(detail, HasSubstr("damaged"));
    EXPECT_THAT(detail, HasSubstr(GetParam().reason));
    EXPECT_EQ(out.str(), "");
}

INSTANTIATE_TEST_SUITE_P(LocalClient, DamageTest,
    ::testing::Values(
        Damage{"missingFile", [](const auto& store) { std::filesystem::remove(contentFile(store)); }, "there is no"},
        Damage{"shortFile", [](const auto& store) { std::filesystem::resize_file(contentFile(store), 499'999); },
            "has 499999 bytes instead of 500000"},
        Damage{"longFile", [](const auto& store) { std::filesystem::resize_file(contentFile(store), 500'001); },
            "has 500001 bytes instead of 500000"},
        Damage{"lostContent", [](const auto& store) { runSql(store, "DELETE FROM contents WHERE data IS NULL"); },
            "lost a part"},
        Damage{"lostPart",
            [](const auto& store) { runSql(store, "UPDATE object_parts SET offset = 9 WHERE content = 4"); }, "lost"},
        Damage{"overwrittenPages",
            [](const auto& store)
            {
                std::fstream index(store / "index.sqlite", std::ios::in | std::ios::out | std::ios::binary);
                index.seekp(8192);
                index << content(3, std::filesystem::file_size(store / "index.sqlite") - 8192);
            },
            "the index is damaged"}),
    [](const auto& row) { return std::string(row.param.name); });

namespace
{

// Lets the process be somebody whom the system refuses things, until it goes.
class OrdinaryUser
{
public:
    OrdinaryUser() { become(65534); }
    OrdinaryUser(const OrdinaryUser&) = delete;
    OrdinaryUser& operator=(const OrdinaryUser&) = delete;
    ~OrdinaryUser() { become(0); }

private:
    void become(uid_t user)
    {
        if (m_root)
        {
            EXPECT_EQ(::seteuid(user), 0);
        }
    }

    const bool m_root = ::getuid() == 0;
};

} // namespace

TEST(LocalClientTest, RefusedAccessIsPermissionDenied)
{
    const TestFolder folder;
    makeStore(folder.store());
    const auto allow = [&](mode_t mode) { ASSERT_EQ(::chmod(folder.store().c_str(), mode), 0); };
    for (const mode_t mode : {0000U, 0444U})
    {
        allow(mode);
        const OrdinaryUser user;
        EXPECT_THAT(detailOf<PermissionDeniedException>([&] { LocalClient client(folder.store()); }),
            HasSubstr("Permission denied"));
    }
    ASSERT_EQ(::chmod(folder.path().c_str(), 0555), 0);
    const OrdinaryUser user;
    EXPECT_THAT(detailOf<PermissionDeniedException>([&] { LocalClient client(folder.path() / "new" / "store"); }),
        HasSubstr("creating"));
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
    const CallSnapshot calls = client.callSnapshot();
    EXPECT_EQ(calls[Operation::CopyPart], (CallSnapshot::Count{2, 101'000}));
    EXPECT_EQ(calls[Operation::UploadPart], (CallSnapshot::Count{4, 301'000}));
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
