#include "Cases.hpp"

#include <storage/clients/common/TransientException.hpp>
#include <storage/clients/common/WriteConditions.hpp>
#include <storage/clients/decorators/FindInterface.hpp>
#include <storage/clients/testing/CloudClientConformance.hpp>

#include <atomic>

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
    for (const auto& write : std::vector<std::function<void(CloudClient&)>>{finish, replace, remove})
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
                    EXPECT_TRUE(mine.getObjectInfo("k").exists);
                }
            });
        EXPECT_TRUE(stored == 1 || !conditions->isAtomic()) << stored << " writers created the object";
        client().deleteObject("k");
    }
}

void linkConcurrencyCases() {}

} // namespace storage::clients::conformance
