#include "TaskPool.hpp"

#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <cstddef>
#include <future>
#include <thread>

namespace storage::clients
{

// Both threads of the pool are busy, one of them with a long run. A task that is posted meanwhile need not wait for the
// end of the run, such as the transfer of another file.
TEST(TaskPoolTest, ALongRunLetsOtherTasksIn)
{
    std::promise<void> end;
    std::atomic<bool> hasRun = false;
    TaskPool pool(2);
    pool.post([&end] { end.get_future().wait(); });
    const auto call = [&](std::size_t index)
    {
        index == 0 ? pool.post([&] { hasRun = true; }) : void();
        std::this_thread::sleep_for(std::chrono::milliseconds(hasRun ? 0 : 1));
    };
    pool.run(2'000, call);
    EXPECT_TRUE(hasRun);
    end.set_value();
}

} // namespace storage::clients
