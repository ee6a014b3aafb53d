#include "Parallel.hpp"

#include <gmock/gmock.h>

#include <atomic>
#include <latch>

namespace storage::clients::s3
{

namespace
{

TEST(ParallelTest, RunsFewHeavyTasksAtOnceBesideOthers)
{
    std::latch allBusy(4);
    std::atomic<int> running = 0;
    std::atomic<int> begun = 0;
    const auto heavy = [&]
    {
        EXPECT_LE(++running, 2);
        if (++begun <= 2)
        {
            allBusy.arrive_and_wait();
        }
        --running;
    };
    const auto other = [&] { allBusy.arrive_and_wait(); };
    runParallel(4, {other, other}, 2, {heavy, heavy, heavy, heavy});
    EXPECT_EQ(begun, 4);
}

} // namespace

} // namespace storage::clients::s3
