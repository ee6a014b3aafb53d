#include "Parallel.hpp"

#include <storage/cloudprovider/Logger.hpp>

#include <foundation/log/Severity.hpp>

#include <fmt/format.h>

#include <algorithm>
#include <atomic>
#include <exception>
#include <future>
#include <mutex>
#include <system_error>

namespace storage::clients::s3
{

void runParallel(std::size_t threads, const Tasks& tasks, std::size_t maxHeavy, const Tasks& heavyTasks)
{
    std::atomic<std::size_t> next = 0;
    std::atomic<std::size_t> nextHeavy = 0;
    std::atomic<bool> hasFailed = false;
    std::mutex mutex;
    std::exception_ptr failure; // guarded by mutex; the first one
    const auto run = [&](const Tasks& list, std::atomic<std::size_t>& at)
    {
        for (std::size_t i = at++; i < list.size() && !hasFailed; i = at++)
        {
            try
            {
                list[i]();
            }
            catch (...)
            {
                hasFailed = true;
                const std::lock_guard lock(mutex);
                failure = failure ? failure : std::current_exception();
            }
        }
    };
    const auto work = [&](bool takesHeavy)
    {
        if (takesHeavy)
        {
            run(heavyTasks, nextHeavy);
        }
        run(tasks, next);
    };
    std::vector<std::future<void>> others;
    for (std::size_t i = 1; i < std::min(threads, tasks.size() + heavyTasks.size()); ++i)
    {
        try
        {
            others.push_back(std::async(std::launch::async, work, i < maxHeavy));
        }
        catch (const std::system_error& reason) // the threads that did start run all tasks
        {
            cloudprovider::getLogger().write(foundation::log::severity::warning,
                fmt::format("Continuing with {} of {} threads: another one could not be started: {}", i, threads,
                    reason.what()));
            break;
        }
    }
    work(true);
    for (const std::future<void>& other : others)
    {
        other.wait();
    }
    if (failure)
    {
        std::rethrow_exception(failure);
    }
}

} // namespace storage::clients::s3
