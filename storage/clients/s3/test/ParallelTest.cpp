#include "Parallel.hpp"

#include <gmock/gmock.h>

#include <atomic>
#include <cstddef>
#include <latch>

#include <pthread.h>

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

TEST(ParallelTest, RunsEverythingOnTheCallersThreadWhereThereIsNoOther)
{
    pthread_attr_t usual;
    pthread_getattr_default_np(&usual);
    pthread_attr_t huge = usual;
    pthread_attr_setstacksize(&huge, std::size_t(1) << 50U); // more than there are addresses: no thread can start
    pthread_setattr_default_np(&huge);
    int done = 0;
    EXPECT_NO_THROW(runParallel(8, {[&] { ++done; }, [&] { ++done; }}, 2, {[&] { ++done; }}));
    pthread_setattr_default_np(&usual);
    EXPECT_EQ(done, 3);
}

} // namespace

} // namespace storage::clients::s3
