#include <storage/clients/common/CallCounters.hpp>

#include <gtest/gtest.h>

#include <random>
#include <set>
#include <sstream>

namespace storage::clients
{

namespace
{

template <typename Value>
std::string printed(const Value& value)
{
    std::ostringstream out;
    out << value;
    return out.str();
}

TEST(CallCountersTest, PrintsWhatAPersonAsks)
{
    CallCounters counters;
    EXPECT_EQ(printed(counters.snapshot()), "no calls");
    counters.countCall(Operation::CompleteMultipartUpload);
    counters.countCall(Operation::PutObject);
    counters.countBytes(Operation::PutObject, 1000);
    counters.countCall(Operation::UploadPart);
    counters.countPart(Operation::UploadPart, 6, 5U << 20);
    for (const std::size_t index : {12U, 0U, 2U, 1U, 3U, 9U})
    {
        counters.countCall(Operation::CopyPart);
        counters.countPart(Operation::CopyPart, index, 5U << 20);
    }
    EXPECT_EQ(printed(counters.snapshot()), "putObject 1 (1000 B), uploadPart 1 (5.0 MiB; parts 6), "
                                            "copyPart 6 (30.0 MiB; parts 0-3,9,12), completeMultipartUpload 1");
    EXPECT_EQ(counters.snapshot().totalCalls(), 9U);
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
    EXPECT_EQ(printed(indexes), "0-255");
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
    EXPECT_TRUE(printed(indexes).ends_with(",100000,...")) << printed(indexes);
}

} // namespace

} // namespace storage::clients
