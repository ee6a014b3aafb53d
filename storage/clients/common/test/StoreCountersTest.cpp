#include <storage/clients/common/StoreCounters.hpp>

#include <gtest/gtest.h>

#include <random>
#include <set>

namespace storage::clients
{

namespace
{

using testing::PrintToString;

TEST(StoreCountersTest, PrintsBytesInUnits)
{
    EXPECT_EQ(formatBytes(1023) + ", " + formatBytes(1024) + ", " + formatBytes((1U << 20) - 1) + ", " +
                  formatBytes(~std::uint64_t{0}),
        "1023 B, 1.0 KiB, 1.0 MiB, 16.0 EiB");
}

TEST(PartIndexesTest, HoldsWhatASetHolds)
{
    const unsigned seed = std::random_device{}();
    SCOPED_TRACE(testing::Message() << "seed " << seed);
    std::mt19937 random(seed);
    PartIndexes indexes;
    std::set<std::size_t> model;
    for (int i = 0; i < 200; ++i)
    {
        const std::size_t index = random() % 256;
        indexes.insert(index);
        model.insert(index);
        for (std::size_t candidate = 0; candidate < 256; ++candidate)
        {
            ASSERT_EQ(indexes.contains(candidate), model.contains(candidate)) << candidate << " in " << indexes;
        }
    }
    for (std::size_t index = 256; index-- > 0;)
    {
        indexes.insert(index);
    }
    EXPECT_EQ(PrintToString(indexes), "0-255");
}

TEST(PartIndexesTest, BoundsItsMemoryAndSaysSo)
{
    PartIndexes indexes;
    for (std::size_t i = 0; i < PartIndexes::maxRanges; ++i)
    {
        indexes.insert(2 * i);
    }
    EXPECT_TRUE(indexes.complete());
    indexes.insert(1); // joins two ranges, which makes room for one
    indexes.insert(100'000);
    EXPECT_TRUE(indexes.complete());
    indexes.insert(200'000);
    EXPECT_FALSE(indexes.complete());
    EXPECT_FALSE(indexes.contains(200'000));
    EXPECT_TRUE(PrintToString(indexes).starts_with("0-2,4,")) << PrintToString(indexes);
    EXPECT_TRUE(PrintToString(indexes).ends_with(",100000,...")) << PrintToString(indexes);
}

} // namespace

} // namespace storage::clients
