#include "Parallel.hpp"

#include <algorithm>
#include <atomic>
#include <exception>
#include <future>
#include <mutex>

namespace storage::clients::s3
{

void runParallel(std::size_t threads, const std::vector<std::function<void()>>& tasks)
{
    std::atomic<std::size_t> next = 0;
    std::mutex mutex;
    std::exception_ptr failure; // guarded by mutex; the first
    const auto work = [&]
    {
        for (std::size_t i = next++; i < tasks.size(); i = next++)
        {
            try
            {
                tasks[i]();
            }
            catch (...)
            {
                next = tasks.size();
                const std::lock_guard lock(mutex);
                failure = failure ? failure : std::current_exception();
            }
        }
    };
    std::vector<std::future<void>> helpers;
    for (std::size_t i = 1; i < std::min(threads, tasks.size()); ++i)
    {
        helpers.push_back(std::async(std::launch::async, work));
    }
    work();
    for (const std::future<void>& helper : helpers)
    {
        helper.wait();
    }
    if (failure)
    {
        std::rethrow_exception(failure);
    }
}

} // namespace storage::clients::s3
