#include "InParallel.hpp"

#include <algorithm>
#include <atomic>
#include <exception>
#include <mutex>
#include <thread>
#include <vector>

namespace storage::mount
{

void inParallel(std::size_t count, const std::function<void(std::size_t index)>& run)
{
    std::atomic<std::size_t> next = 0;
    std::mutex mutex;
    std::exception_ptr failure;
    const auto work = [&]
    {
        for (std::size_t index = next++; index < count; index = next++)
        {
            try
            {
                run(index);
            }
            catch (...)
            {
                const std::lock_guard lock(mutex);
                failure = failure ? failure : std::current_exception();
                next = count;
            }
        }
    };
    {
        std::vector<std::jthread> threads;
        for (std::size_t i = 1; i < std::min<std::size_t>(count, 8); ++i)
        {
            threads.emplace_back(work);
        }
        work();
    }
    failure ? std::rethrow_exception(failure) : void();
}

} // namespace storage::mount
