#include "TestStore.hpp"

#include <storage/cloudprovider/CloudExceptions.hpp>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cstdlib>
#include <functional>
#include <numeric>
#include <sstream>

#include <sched.h>
#include <sys/mount.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <unistd.h>

namespace storage::clients::test
{

namespace
{

using cloudprovider::InvalidLocationException;
using cloudprovider::PermissionDeniedException;
using cloudprovider::UnknownErrorException;
using std::filesystem::path;
using ::testing::HasSubstr;

// Run a shell command in the directory that holds the store. @return 0 if it succeeded
int shell(const TestFolder& folder, const std::string& command)
{
    return std::system(("cd '" + folder.path().native() + "' && " + command).c_str());
}

// The detail of the exception that the call must throw: exactly of this type, in one line.
template <typename Expected>
std::string detailOf(const std::function<void()>& call)
{
    try
    {
        call();
    }
    catch (const cloudprovider::CloudException& error)
    {
        EXPECT_EQ(typeid(error).name(), typeid(Expected).name()) << error.what();
        EXPECT_EQ(error.detail().value_or("").find('\n'), std::string::npos);
        return error.detail().value_or("");
    }
    ADD_FAILURE() << "nothing was thrown";
    return "";
}

template <typename Expected>
std::string detailOfOpening(const path& store)
{
    return detailOf<Expected>([&] { const LocalClient client(store); });
}

std::string detailOfReading(const path& store)
{
    LocalClient client(store);
    std::ostringstream out;
    const std::string detail = detailOf<UnknownErrorException>([&] { client.getObjectRange("large", out, 0, 0); });
    EXPECT_EQ(out.str(), "");
    return detail;
}

// A store with one object in the index and one in a file, closed.
void makeStore(const path& store)
{
    LocalClient client(store);
    put(client, "small", content(1, 1000));
    put(client, "large", content(2, 500'000));
}

} // namespace

TEST(LocalClientTest, RefusesOtherDirectoriesAndReportsDamage)
{
    const auto noStore = detailOfOpening<InvalidLocationException>;
    const auto noIndex = detailOfOpening<UnknownErrorException>;
    struct Row
    {
        std::string (*detailOfFailure)(const path& store);
        const char* reason;
        const char* command; // that damages the store
        const char* sql = "";
    };
    const Row rows[] = {{noStore, "is not a directory", "rm -r store && touch store"},
        {noStore, "is not a store: it has other content", "rm store/index.sqlite"},
        {noStore, "its index is another program's", "true", "PRAGMA application_id = 0"},
        {noIndex, "the index is damaged", "head -c 8192 /dev/zero > store/index.sqlite"},
        {noIndex, "the index is damaged: it is empty", "truncate -s 0 store/index.sqlite"},
        {noIndex, "has version 2, this program knows version 1", "true", "PRAGMA user_version = 2"},
        {detailOfReading, "damaged: there is no", "rm store/contents/*"},
        {detailOfReading, "499999 bytes instead of 500000", "truncate -s 499999 store/contents/*"},
        {detailOfReading, "500001 bytes instead of 500000", "truncate -s 500001 store/contents/*"},
        {detailOfReading, "damaged: the index has lost a part", "true", "DELETE FROM contents WHERE data IS NULL"},
        {detailOfReading, "damaged: the index has lost", "true",
            "UPDATE object_parts SET offset = 9 WHERE content = 4"},
        {detailOfReading, "the index is damaged",
            "head -c 40000 /dev/zero | dd of=store/index.sqlite bs=8192 seek=1 conv=notrunc status=none"}};
    for (const Row& row : rows)
    {
        SCOPED_TRACE(row.reason);
        const TestFolder folder;
        makeStore(folder.store());
        EXPECT_EQ(shell(folder, row.command), 0);
        EXPECT_EQ(*row.sql == '\0' ? "" : runSql(folder.store(), row.sql), "");
        EXPECT_EQ(shell(folder, "cp -r store before"), 0);
        const std::string detail = row.detailOfFailure(folder.store());
        EXPECT_THAT(detail, HasSubstr(row.reason));
        EXPECT_THAT(detail, HasSubstr('"' + folder.store().native() + '"'));
        EXPECT_EQ(shell(folder, "diff -r -x 'index.sqlite-*' before store"), 0) << "expected no change";
    }
}

TEST(LocalClientTest, DeniedAccessIsPermissionDenied)
{
    const TestFolder folder;
    makeStore(folder.store());
    const auto openAsOrdinaryUser = [&](const path& store)
    {
        const bool isRoot = ::getuid() == 0; // root is denied nothing
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
    using std::filesystem::perms;
    const TestFolder folder;
    const mode_t before = ::umask(0);
    LocalClient client(folder.path() / "new" / "store");
    put(client, "large", content(1, 100'000));
    ::umask(before);
    for (const auto& entry : std::filesystem::recursive_directory_iterator(folder.path()))
    {
        EXPECT_EQ(entry.status().permissions(), entry.is_directory() ? perms(0700) : perms(0600)) << entry.path();
    }
}

TEST(LocalClientTest, UnchangedPartsAreSharedAndNotCopied)
{
    const TestFolder folder;
    LocalClient client(folder.store());
    putParts(client, "object", {content(1, 100'000), content(2, 100'000), content(3, 1000)});
    const auto before = files(folder.store() / "contents").size();

    const std::string upload = client.createMultipartUpload("object", "");
    std::vector<cloudprovider::PartInfo> parts = client.getObjectParts("object");
    parts[1] = conformance::uploadPart(client, "object", upload, 1, content(4, 100'000));
    for (const std::size_t i : {0U, 2U})
    {
        EXPECT_EQ(client.copyPart("object", upload, parts[i]), parts[i].Tag);
    }
    EXPECT_EQ(files(folder.store() / "contents").size(), before + 1);
    client.completeMultipartUpload("object", upload, parts);
    EXPECT_EQ(files(folder.store() / "contents").size(), before);
}

TEST(LocalClientTest, ReadsManyPartsWithFewDescriptorsAndFewPartsFromOneVersion)
{
    const TestFolder folder;
    LocalClient client(folder.store(), nothingInline);
    std::vector<std::string> parts;
    for (std::size_t i = 0; i < 200; ++i)
    {
        parts.push_back(content(i, 100));
    }
    putParts(client, "object", parts);
    rlimit before = {};
    ASSERT_EQ(::getrlimit(RLIMIT_NOFILE, &before), 0);
    const rlimit few{64, before.rlim_max};
    ASSERT_EQ(::setrlimit(RLIMIT_NOFILE, &few), 0);
    EXPECT_EQ(get(client, "object"), std::accumulate(parts.begin(), parts.end(), std::string()));
    ASSERT_EQ(::setrlimit(RLIMIT_NOFILE, &before), 0);

    CallbackBuffer replacing("", [&] { putParts(client, "object", {parts.begin(), parts.begin() + 16}); });
    std::ostream out(&replacing);
    EXPECT_THAT(detailOf<UnknownErrorException>([&] { client.getObjectRange("object", out, 0, 0); }),
        HasSubstr("was replaced"));
    CallbackBuffer removing("", [&] { client.deleteObject("object"); });
    std::ostream wholeOut(&removing);
    client.getObjectRange("object", wholeOut, 0, 0);
    EXPECT_EQ(removing.str(), std::accumulate(parts.begin(), parts.begin() + 16, std::string()));
}

TEST(LocalClientTest, AFullDiskLeavesEveryObjectAsItIs)
{
    constexpr int notAllowed = 77; // to mount: for ordinary users, and for root in most containers
    const TestFolder folder;
    const int process = startProcess(
        [&]
        {
            if (::unshare(CLONE_NEWNS) != 0 || ::mount("none", "/", nullptr, MS_REC | MS_PRIVATE, nullptr) != 0 ||
                ::mount("none", folder.path().c_str(), "tmpfs", 0, "size=4m") != 0)
            {
                ::_exit(notAllowed);
            }
            LocalClient client(folder.store());
            put(client, "small", content(1, 1000));
            putParts(client, "large", {content(2, 300'000), content(3, 300'000)});
            const std::string tooLarge = content(4, 4'000'000);
            const auto expectFull = [&](const std::function<void()>& call)
            {
                EXPECT_THAT(detailOf<UnknownErrorException>(call), HasSubstr("No space left on device"));
                EXPECT_EQ(files(folder.store() / "incoming"), std::vector<std::string>());
            };
            expectFull([&] { put(client, "large", tooLarge); });
            shell(folder, "head -c 4000000 /dev/zero > filler 2> /dev/null");
            // The index can grow for a while, within the log that it has written before. With a little more room, a
            // file can be written, but the transaction that adds it fails.
            LocalClient clientWithFiles(folder.store(), nothingInline);
            for (const std::string room : {"0", "100K", "4K"})
            {
                shell(folder, "truncate -s -" + room + " filler");
                expectFull(
                    [&]
                    {
                        for (std::uint64_t i = 0; i < 1000; ++i)
                        {
                            put(room == "0" ? client : clientWithFiles, "more" + std::to_string(i), content(i, 1000));
                        }
                    });
            }
            EXPECT_EQ(versionOf(get(client, "small")), 1U);
            EXPECT_EQ(get(client, "large"), content(2, 300'000) + content(3, 300'000));

            std::filesystem::remove(folder.path() / "filler");
            put(client, "small", content(5, 200'000));
            EXPECT_EQ(versionOf(get(client, "small")), 5U);
            checkStore(folder.store());
        });
    const int status = waitForProcess(process);
    if (status == notAllowed)
    {
        GTEST_SKIP() << "this machine does not let the test mount a small disk";
    }
    EXPECT_EQ(status, 0);
}

} // namespace storage::clients::test
