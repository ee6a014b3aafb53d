#include "TestStore.hpp"

#include <gtest/gtest.h>

#include <fstream>
#include <vector>

namespace storage::clients::test
{

class SharedUseTest : public ::testing::TestWithParam<std::uint64_t>
{
};

TEST_P(SharedUseTest, ProcessesWriteTheSameAndOtherKeys)
{
    constexpr std::uint64_t writers = 3;
    constexpr std::uint64_t rounds = 40;
    const TestFolder folder;
    const auto ownKey = [](std::uint64_t writer, std::uint64_t round)
    { return "own/" + std::to_string(writer) + '/' + std::to_string(round); };

    // All of them open the store, and the first of them makes it.
    std::vector<int> processes;
    for (std::uint64_t writer = 1; writer <= writers; ++writer)
    {
        processes.push_back(startProcess(
            [&]
            {
                LocalClient client(folder.store(), GetParam());
                for (std::uint64_t round = 1; round <= rounds; ++round)
                {
                    const std::uint64_t version = writer * 1000 + round;
                    put(client, ownKey(writer, round), content(version, 100 + version));
                    put(client, "shared", content(version, 5000 + version));
                    putParts(client, "shared", {content(version, 300)});
                    EXPECT_NE(versionOf(get(client, "shared")), 0U);
                    if (round % 2 == 0)
                    {
                        client.deleteObject(ownKey(writer, round));
                    }
                }
            }));
    }
    // Whoever finds the mark of a dead client collects what it left, and nothing of those that live.
    for (int opened = 0; opened < 60; ++opened)
    {
        const LocalClient client(folder.store());
        std::ofstream(folder.store() / "sessions" / "00000000000000ff");
    }
    for (const int process : processes)
    {
        expectSuccess(process);
    }

    LocalClient client(folder.store());
    EXPECT_EQ(keys(client).size(), writers * rounds / 2 + 1);
    for (std::uint64_t writer = 1; writer <= writers; ++writer)
    {
        EXPECT_EQ(versionOf(get(client, ownKey(writer, rounds - 1))), writer * 1000 + rounds - 1);
    }
    EXPECT_EQ(client.getObjectInfo("shared").size, 300U);
    checkStore(folder.store());
}

INSTANTIATE_TEST_SUITE_P(Local, SharedUseTest, ::testing::Values(everythingInFiles, LocalClient::defaultMaxInlineSize),
    [](const auto& row) { return row.param == everythingInFiles ? "contentsInFiles" : "contentsInTheIndex"; });

} // namespace storage::clients::test
