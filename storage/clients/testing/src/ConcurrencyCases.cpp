#include "Cases.hpp"

#include <storage/clients/common/ObjectRemover.hpp>
#include <storage/clients/common/TransientException.hpp>
#include <storage/clients/common/WriteConditions.hpp>
#include <storage/clients/decorators/FindInterface.hpp>
#include <storage/clients/testing/CloudClientConformance.hpp>

#include <algorithm>
#include <atomic>
#include <functional>
#include <iterator>
#include <sstream>

// Instances of one store, used by several threads at the same time.

namespace storage::clients::conformance
{

using namespace cloudprovider;

TEST_P(CloudClientConformance, ReadersSeeTheOldOrTheNewObject)
{
    const std::string small = content(1'000, 1);
    const std::vector<std::string> parts{partContent(2), content(50'000, 3)};
    const std::string large = parts[0] + parts[1];
    const int rounds = large.size() < 1'000'000 ? 20 : 3; // large parts take long enough to be read meanwhile
    put("k", small);
    std::atomic<bool> writing = true;
    atOnce(4,
        [&](std::size_t i)
        {
            if (i == 0)
            {
                const std::shared_ptr<void> end(nullptr, [&](void*) { writing = false; }); // after an exception, too
                for (int round = 0; round < rounds; ++round)
                {
                    putParts(client(), "k", parts);
                    put("k", small);
                }
                return;
            }
            do
            {
                try
                {
                    const std::string seen = get("k");
                    ASSERT_TRUE(seen == small || seen == large) << seen.size() << " bytes";
                    const auto now = client().getObjectParts("k");
                    ASSERT_TRUE(haveSizes(now, {small.size()}) || haveSizes(now, {parts[0].size(), parts[1].size()}));
                }
                catch (const TransientException&)
                {
                    // A read may fail when the object changes, as long as a retry succeeds.
                }
            } while (writing);
        });
    EXPECT_EQ(get("k"), small);
}

TEST_P(CloudClientConformance, ThreadsAndInstancesShareOneStore)
{
    constexpr std::size_t threads = 8;
    const CloudClientSharedPtr other = openAnother();
    CloudClient& second = other ? *other : client();
    const bool sharesUploads = capabilities().noSharedUploads.empty();
    const std::string id = client().createMultipartUpload("shared", "");
    std::vector<PartInfo> parts(threads);
    parts[0] = upload("shared", id, 0, partContent(0)); // another client may use an upload once it has a part
    std::string expected;
    atOnce(threads,
        [&](std::size_t i)
        {
            CloudClient& mine = i % 2 == 0 ? client() : second;
            const std::string folder = std::to_string(i) + "/";
            const auto seed = static_cast<unsigned>(i);
            for (unsigned round = 0; round < 10; ++round)
            {
                const std::string key = folder + std::to_string(round);
                conformance::put(mine, key, content(500, seed + round));
                ASSERT_TRUE(conformance::get(mine, key) == content(500, seed + round)) << key;
                ASSERT_EQ(conformance::keys(mine, folder).size(), round + 1) << folder;
            }
            parts[i] = uploadPart(sharesUploads ? mine : client(), "shared", id, i, partContent(seed));
            mine.deleteObject(folder + "0");
        });
    for (unsigned i = 0; i < threads; ++i)
    {
        expected += partContent(i);
    }
    client().completeMultipartUpload("shared", id, parts);
    for (CloudClient* instance : {&client(), &second})
    {
        EXPECT_TRUE(conformance::get(*instance, "shared") == expected) << "expected the part of every thread";
        EXPECT_EQ(conformance::keys(*instance).size(), threads * 9 + 1) << "expected the objects of every instance";
    }
    second.deleteObject("shared");
    EXPECT_FALSE(client().getObjectInfo("shared").exists);
}

// One client opens an object, reads it, and appends to it with a copy of what is there. The other client changes the
// object just before one of these calls.
TEST_P(CloudClientConformance, NeverMixesTheOpenedVersionWithAnother)
{
    const CloudClientSharedPtr other = openAnother();
    if (!other || !capabilities().noVersionPins.empty())
    {
        GTEST_SKIP() << "no other client can write, or it is not noticed: " << capabilities().noVersionPins;
    }
    const std::string before = content(std::max<std::size_t>(capabilities().minPartSize, 100) + 1'000, 1);
    const std::string theirs = content(before.size(), 2);
    struct Row
    {
        CloudClient& mine;
        CloudClient& changer;
        bool isRemoved;
        std::function<void(CloudClient&)> change;
    };
    const auto overwrite = [&](CloudClient& by) { conformance::put(by, "k", theirs); };
    const Row rows[] = {{client(), *other, false, overwrite},
        {*other, client(), false, [&](CloudClient& by) { putParts(by, "k", {theirs}); }},
        {client(), *other, true, [&](CloudClient& by) { by.deleteObject("k"); }},
        {*other, client(), false, [&](CloudClient& by) { by.deleteObject("k"), overwrite(by); }}};
    constexpr std::size_t callsToStore = 7;
    for (std::size_t i = 0; i < std::size(rows) * (callsToStore + 2); ++i)
    {
        const Row& row = rows[i % std::size(rows)];
        const std::size_t changeAt = i / std::size(rows);
        SCOPED_TRACE(testing::Message() << "row " << i % std::size(rows) << ", changed before call " << changeAt);
        conformance::put(row.changer, "k", before);
        std::size_t calls = 0;
        const auto mine = [&]() -> CloudClient&
        {
            calls++ == changeAt ? row.change(row.changer) : void();
            return row.mine;
        };
        std::string seen;
        std::string uploadId;
        bool isStored = false;
        try
        {
            std::vector<PartInfo> parts = mine().getObjectParts("k");
            seen = conformance::get(mine(), "k", 0, 9);
            seen += conformance::get(mine(), "k", 10, 49);
            seen += conformance::get(mine(), "k", 50, before.size() - 1);
            uploadId = mine().createMultipartUpload("k", parts[0].Tag);
            for (PartInfo& part : parts)
            {
                part.Tag = row.mine.copyPart("k", uploadId, part);
            }
            parts.push_back(uploadPart(mine(), "k", uploadId, parts.size(), "appended"));
            mine().completeMultipartUpload("k", uploadId, parts);
            isStored = true;
            EXPECT_TRUE(conformance::get(mine(), "k", 0, 9) == seen.substr(0, 10)) << "its own version";
        }
        catch (const CloudException&)
        {
            isStored || uploadId.empty() ? void() : row.mine.abortMultipartUpload("k", uploadId);
        }
        const std::string& opened = changeAt == 0 ? theirs : before;
        EXPECT_TRUE(opened.starts_with(seen)) << "read a mixture";
        EXPECT_EQ(isStored, changeAt >= callsToStore || (changeAt == 0 && !row.isRemoved));
        const bool exists = row.changer.getObjectInfo("k").exists;
        EXPECT_EQ(exists, !row.isRemoved || changeAt > callsToStore);
        if (exists)
        {
            row.changer.getObjectParts("k");
            const std::string now = conformance::get(row.changer, "k");
            EXPECT_TRUE(now == (isStored && changeAt != callsToStore ? opened + "appended" : theirs)) << now.size();
        }
    }
}

TEST_P(CloudClientConformance, OnlyItsOwnSuccessfulWritesReplaceTheOpenedVersion)
{
    const CloudClientSharedPtr other = openAnother();
    if (!other || !capabilities().noVersionPins.empty())
    {
        GTEST_SKIP() << "no other client can write, or it is not noticed: " << capabilities().noVersionPins;
    }
    struct Row
    {
        const char* name;
        std::function<void()> act;
        const char* stored; // null: nothing
        std::string key = "k";
    };
    const Row rows[] = {{"creation", [&] { putParts(client(), "new", {"mine"}); }, "mine", "new"},
        {"put", [&] { put("k", "mine"); }, "mine"}, {"completion", [&] { putParts(client(), "k", {"mine"}); }, "mine"},
        {"deletion", [&] { client().deleteObject("k"); }, nullptr},
        {"failed put",
            [&]
            {
                std::istringstream tooShort("mine");
                EXPECT_THROW(client().putObject("k", tooShort, 5), CloudException);
            },
            nullptr},
        {"refused completion",
            [&]
            {
                const std::string id = client().createMultipartUpload("k", client().getObjectParts("k")[0].Tag);
                const PartInfo part = upload("k", id, 0, "mine");
                conformance::put(*other, "k", "other");
                EXPECT_THROW(client().completeMultipartUpload("k", id, {part}), UnknownErrorException);
                client().abortMultipartUpload("k", id);
            },
            nullptr}};
    for (const auto& [name, act, stored, key] : rows)
    {
        SCOPED_TRACE(name);
        if (key == "k")
        {
            conformance::put(*other, key, "opened");
            client().getObjectParts(key);
        }
        act();
        if (stored != nullptr)
        {
            EXPECT_EQ(get(key), stored);
        }
        conformance::put(*other, key, "theirs");
        try
        {
            EXPECT_NE(get(key, 0, 3), "thei");
        }
        catch (const CloudException&)
        {
            // expected, unless the opened version is still in memory
        }
        client().getObjectParts(key);
        EXPECT_EQ(get(key), "theirs") << "it was opened again";
        conformance::put(*other, key, "later");
        put(key, "last");
        EXPECT_EQ(get(key), "last");
    }
}

TEST_P(CloudClientConformance, WritesOnlyOverTheRequiredVersion)
{
    auto* const conditions = findInterface<WriteConditions>(client());
    if (conditions == nullptr)
    {
        GTEST_SKIP() << "the client has no conditional writes";
    }
    put("k", "older");
    const std::string older = client().getObjectInfo("k").tag;
    const auto finish = [](CloudClient& by) { putParts(by, "k", {"new"}); };
    const auto replace = [](CloudClient& by) { conformance::put(by, "k", "new"); };
    const auto remove = [](CloudClient& by) { by.deleteObject("k"); };
    std::vector<std::function<void(CloudClient&)>> writes{finish, replace, remove};
    if (findInterface<ObjectRemover>(client()) != nullptr)
    {
        writes.emplace_back(
            [](CloudClient& by)
            {
                conformance::put(by, "free", "x");
                const auto failures = findInterface<ObjectRemover>(by)->deleteObjects({"missing", "k", "free"});
                EXPECT_FALSE(by.getObjectInfo("free").exists);
                failures.empty() ? void() : std::rethrow_exception(failures.at("k"));
            });
    }
    for (const auto& write : writes)
    {
        put("k", "stored");
        const std::string stored = client().getObjectInfo("k").tag;
        {
            const auto none = conditions->requireVersion("k", "");
            EXPECT_THROW(write(client()), ResourceAlreadyExistsException);
            put("other", "x");
            client().deleteObject("other");
        }
        for (const std::string& tag : {older, stored + "!"})
        {
            const auto other = conditions->requireVersion("k", tag);
            EXPECT_THROW(write(client()), UnknownErrorException);
        }
        EXPECT_EQ(client().getObjectInfo("k").tag, stored) << "a refused write changes nothing";
        const auto same = conditions->requireVersion("k", stored);
        EXPECT_NO_THROW(write(client()));
        EXPECT_NE(client().getObjectInfo("k").tag, stored);
        EXPECT_THROW(put("k", "again"), UnknownErrorException);
    }
    EXPECT_EQ(keys(), std::vector<std::string>()) << "removed, and not stored again";
    for (std::size_t round = 0; round < 8; ++round)
    {
        std::atomic<int> stored = 0;
        atOnce(4,
            [&](std::size_t i)
            {
                const CloudClientSharedPtr other = openAnother();
                CloudClient& mine = other ? *other : client();
                const auto none = findInterface<WriteConditions>(mine)->requireVersion("k", "");
                try
                {
                    (i + round) % 2 == 0 ? replace(mine) : finish(mine);
                    ++stored;
                }
                catch (const ResourceAlreadyExistsException&)
                {
                    EXPECT_TRUE(mine.getObjectInfo("k").exists || !capabilities().noCreationBesideUploads.empty());
                }
            });
        EXPECT_TRUE(stored == 1 || !conditions->isAtomic()) << stored << " writers created the object";
        client().deleteObject("k");
    }
}

void linkConcurrencyCases() {}

} // namespace storage::clients::conformance
