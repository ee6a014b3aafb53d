#include "ReadStreams.hpp"

#include <gtest/gtest.h>

#include <cstdint>
#include <vector>

namespace storage::clients
{

namespace
{

using Numbers = std::vector<std::uint64_t>;

constexpr std::uint64_t size = 10; // bytes of every range that is read

TEST(ReadStreamsTest, OpensWindowsForReadersThatGoOn)
{
    const struct
    {
        const char* name;
        Numbers ranges;  // that are read, by number
        Numbers windows; // after each, in ranges
    } rows[] = {
        {"doubles up to the limit", {0, 1, 2, 3, 4, 5, 6}, {0, 1, 2, 4, 8, 12, 12}},
        {"begins in the middle", {7, 8, 9, 10}, {0, 0, 1, 2}},
        {"stays closed for a single range", {7}, {0}},
        {"stays closed for random ranges", {5, 1, 9, 3, 7, 0}, {0, 0, 0, 0, 0, 0}},
        {"stays closed backwards", {5, 4, 3, 2}, {0, 0, 0, 0}},
        {"does not believe in chance", {50, 4, 30, 51, 2, 31, 5}, {0, 0, 0, 0, 0, 0, 0}},
        {"tells readers apart", {0, 50, 1, 51, 2, 52, 53, 3}, {0, 0, 1, 0, 2, 1, 2, 4}},
        {"is shared by readers in step", {0, 0, 1, 1, 2, 2}, {0, 0, 1, 1, 2, 2}},
        {"closes with a jump into it", {0, 1, 2, 3, 5, 6, 7, 8}, {0, 1, 2, 4, 0, 0, 1, 2}},
        {"survives a look elsewhere", {0, 1, 2, 20, 3}, {0, 1, 2, 0, 4}},
        {"closes with many looks elsewhere", {0, 1, 2, 11, 22, 33, 44, 55, 66, 77, 88, 3},
            {0, 1, 2, 0, 0, 0, 0, 0, 0, 0, 0, 0}},
    };
    for (const auto& row : rows)
    {
        SCOPED_TRACE(row.name);
        ReadStreams streams;
        Numbers windows;
        for (const std::uint64_t range : row.ranges)
        {
            const auto ahead = streams.advance({range * size, size}, windows.size() + 1, 12 * size + 1, 3 * size + 1);
            EXPECT_EQ(ahead.offset, (range + 1) * size);
            windows.push_back(ahead.size / size);
            const Numbers pieces{
                1, 1, 1, 1, 2, 2, 3, 3, 3, 3, 3, 3, 3}; // by window: half of it, but three ranges at most
            EXPECT_EQ(ahead.piece, pieces.at(windows.back()) * size) << windows.back();
            EXPECT_EQ(streams.wants({ahead.offset, 1}), ahead.size != 0);
        }
        EXPECT_EQ(windows, row.windows);
    }
}

} // namespace

} // namespace storage::clients
