#include "TaskPool.hpp"

#include <storage/cloudprovider/Logger.hpp>

#include <foundation/log/Severity.hpp>

#include <algorithm>
#include <exception>
#include <memory>
#include <new>
#include <string>
#include <utility>

namespace storage::clients
{

TaskPool::TaskPool(std::size_t maxThreads)
    : m_maxThreads(maxThreads)
{
}

TaskPool::~TaskPool()
{
    {
        const std::lock_guard lock(m_mutex);
        m_isEnding = true;
        m_changed.notify_all();
    }
    for (std::thread& thread : m_threads)
    {
        thread.join();
    }
}

void TaskPool::post(Task task)
{
    {
        const std::lock_guard lock(m_mutex);
        if (m_tasks.size() >= m_idle && m_threads.size() < m_maxThreads)
        {
            startThread();
        }
        if (!m_threads.empty())
        {
            m_tasks.push_back(std::move(task));
            m_changed.notify_one();
            return;
        }
    }
    task();
}

/// The calls of one run(). The threads may find that none is left after run() has returned, so they share this.
class TaskPool::Run
{
public:
    /// @param task  valid while a call is left or running
    Run(std::size_t count, const IndexedTask& task)
        : m_count(count)
        , m_task(task)
    {
    }

    /// Make the next call. @return false: none was left
    bool callNext()
    {
        std::unique_lock lock(m_mutex);
        if (m_next == m_count)
        {
            return false;
        }
        const std::size_t index = m_next++;
        ++m_running;
        lock.unlock();
        std::exception_ptr failure;
        try
        {
            m_task(index);
        }
        catch (...)
        {
            failure = std::current_exception();
        }
        lock.lock();
        --m_running;
        if (failure && !m_failure)
        {
            m_failure = failure;
            m_next = m_count;
        }
        m_changed.notify_all();
        return true;
    }

    /// Wait for the calls that are running. @throws the first failure
    void wait()
    {
        std::unique_lock lock(m_mutex);
        m_changed.wait(lock, [this] { return m_running == 0; });
        if (m_failure)
        {
            std::rethrow_exception(std::move(m_failure)); // not destroyed by the last thread that lets go of the run
        }
    }

private:
    const std::size_t m_count;
    const IndexedTask& m_task;
    std::mutex m_mutex; // guards everything below
    std::condition_variable m_changed;
    std::size_t m_next = 0; // index
    std::size_t m_running = 0;
    std::exception_ptr m_failure; // the first one
};

void TaskPool::run(std::size_t count, const IndexedTask& task)
{
    const auto shared = std::make_shared<Run>(count, task);
    try
    {
        for (std::size_t i = 1; i < std::min(m_maxThreads, count); ++i)
        {
            post([this, shared] { help(shared); });
        }
    }
    catch (const std::bad_alloc&) // the threads that have been asked, and this one, make all calls
    {
    }
    while (shared->callNext())
    {
    }
    shared->wait();
}

/// Make calls of a run until none is left or a task waits for a thread; then queue behind it.
void TaskPool::help(const std::shared_ptr<Run>& run)
{
    while (run->callNext() && !requeue(run))
    {
    }
}

/// @return false: there is nothing to queue behind
bool TaskPool::requeue(const std::shared_ptr<Run>& run)
try
{
    const std::lock_guard lock(m_mutex);
    // No thread needs to wake up: this one takes the first task instead.
    return !m_tasks.empty() && (m_tasks.push_back([this, run] { help(run); }), true);
}
catch (const std::bad_alloc&)
{
    return false;
}

/// Start a thread if that is possible.
void TaskPool::startThread()
{
    try
    {
        m_threads.emplace_back([this] { work(); });
        ++m_idle;
    }
    catch (const std::exception& failure) // std::system_error, or std::bad_alloc
    {
        if (!std::exchange(m_hasWarned, true))
        {
            cloudprovider::getLogger().write(foundation::log::severity::warning,
                "Continuing with " + std::to_string(m_threads.size()) + " of " + std::to_string(m_maxThreads) +
                    " threads: another one could not be started: " + failure.what());
        }
    }
}

void TaskPool::work()
{
    std::unique_lock lock(m_mutex);
    for (;;)
    {
        m_changed.wait(lock, [this] { return m_isEnding || !m_tasks.empty(); });
        --m_idle;
        if (m_tasks.empty())
        {
            return;
        }
        {
            const auto task = std::move(m_tasks.front());
            m_tasks.pop_front();
            lock.unlock();
            task();
        } // releases what the task holds before the next task starts
        lock.lock();
        ++m_idle;
    }
}

} // namespace storage::clients
