#include "Cases.hpp"

#include <storage/clients/common/TransientException.hpp>
#include <storage/clients/testing/CloudClientConformance.hpp>

#include <atomic>
#include <sstream>

// One instance, or several on one store, used by many threads at once.

namespace storage::clients::conformance
{

using namespace cloudprovider;

TEST_P(CloudClientConformance, ReadersSeeTheOldOrTheNewObjectAndNothingElse)
{
    const std::string small = content(1'000, 1);
    const std::string front = partContent(2);
    const std::string back = content(50'000, 3);
    const std::string large = front + back;
    const int rounds = large.size() < 1'000'000 ? 20 : 3; // large parts take long enough to be read in between
    put("k", small);
    std::atomic<bool> writing = true;
    atOnce(4,
        [&](std::size_t i)
        {
            if (i == 0)
            {
                const struct Done
                {
                    std::atomic<bool>& flag;
                    ~Done() { flag = false; }
                } done{writing};
                for (int round = 0; round < rounds; ++round)
                {
                    const std::string id = client().createMultipartUpload("k", "");
                    const PartInfo first = upload("k", id, 0, front);
                    client().completeMultipartUpload("k", id, {first, upload("k", id, 1, back)});
                    put("k", small);
                }
                return;
            }
            do
            {
                try
                {
                    const std::string seen = get("k");
                    ASSERT_TRUE(seen == small || seen == large)
                        << "expected the object of " << small.size() << " or " << large.size() << " bytes, whole; got "
                        << seen.size() << " bytes";
                    const auto parts = client().getObjectParts("k");
                    const std::size_t end = parts.empty() ? 0 : parts.back().Offset + parts.back().Size;
                    ASSERT_TRUE(end == small.size() || end == large.size()) << "parts end at " << end;
                }
                catch (const TransientException&)
                {
                    // A store may stumble over an object that changes under it, as long as it serves who asks again.
                }
            } while (writing);
        });
    EXPECT_EQ(get("k"), small);
}

TEST_P(CloudClientConformance, ThreadsShareOneInstance)
{
    constexpr std::size_t threads = 4;
    const std::string id = client().createMultipartUpload("shared", "");
    std::vector<PartInfo> parts(threads + 1);
    std::string expected;
    atOnce(threads,
        [&](std::size_t i)
        {
            const std::string folder = std::to_string(i) + "/";
            const auto seed = static_cast<unsigned>(i);
            for (unsigned round = 0; round < 10; ++round)
            {
                const std::string key = folder + std::to_string(round);
                put(key, content(500, seed + round));
                ASSERT_TRUE(get(key) == content(500, seed + round)) << key;
                ASSERT_EQ(keys(folder).size(), round + 1) << folder;
            }
            parts[i] = upload("shared", id, i, partContent(seed));
            client().deleteObject(folder + "0");
        });
    for (unsigned i = 0; i < threads; ++i)
    {
        expected += partContent(i);
    }
    parts[threads] = upload("shared", id, threads, "end");
    client().completeMultipartUpload("shared", id, parts);
    EXPECT_TRUE(get("shared") == expected + "end") << "expected every thread's part in its place";
    EXPECT_EQ(keys().size(), threads * 9 + 1);
}

TEST_P(CloudClientConformance, InstancesShareOneStore)
{
    const CloudClientSharedPtr other = openAnother();
    if (!other)
    {
        GTEST_SKIP() << "there is one instance to a store";
    }
    put("k", "old");
    std::ostringstream seen;
    other->getObjectRange("k", seen, 0, 0);
    EXPECT_EQ(seen.str(), "old");

    CloudClient& sender = capabilities().noSharedUploads.empty() ? *other : client();
    const std::string id = client().createMultipartUpload("k", "");
    std::istringstream bytes("bytes");
    const std::string tag = sender.uploadPart("k", id, {0, 0, 5, ""}, bytes);
    client().completeMultipartUpload("k", id, {{0, 0, 5, tag}});
    EXPECT_EQ(other->getObjectInfo("k").size, 5U);

    atOnce(4,
        [&](std::size_t i)
        {
            CloudClient& mine = i % 2 == 0 ? client() : *other;
            for (int round = 0; round < 10; ++round)
            {
                std::istringstream empty;
                mine.putObject(std::to_string(i) + "/" + std::to_string(round), empty, 0);
            }
        });
    EXPECT_EQ(keys().size(), 41U) << "expected every object of every instance";
    other->deleteObject("k");
    EXPECT_FALSE(client().getObjectInfo("k").exists);
}

void linkConcurrencyCases() {}

} // namespace storage::clients::conformance
