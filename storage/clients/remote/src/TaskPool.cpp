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

void TaskPool::run(const std::vector<Task>& tasks)
{
    // The threads may find that nothing is left to do after this has returned, so they own what they look at.
    struct Run
    {
        std::mutex mutex; // guards everything below
        std::condition_variable changed;
        const std::vector<Task>* tasks; // valid while a task is left or running
        std::size_t left;
        std::size_t running = 0;
        std::exception_ptr failure; // the first one
    };
    const auto shared = std::make_shared<Run>();
    shared->tasks = &tasks;
    shared->left = tasks.size();
    const auto work = [shared]
    {
        Run& run = *shared;
        std::unique_lock lock(run.mutex);
        while (run.left > 0)
        {
            const Task& task = (*run.tasks)[run.tasks->size() - run.left--];
            ++run.running;
            lock.unlock();
            std::exception_ptr failure;
            try
            {
                task();
            }
            catch (...)
            {
                failure = std::current_exception();
            }
            lock.lock();
            --run.running;
            if (failure && !run.failure)
            {
                run.failure = failure;
                run.left = 0;
            }
            run.changed.notify_all();
        }
    };
    try
    {
        for (std::size_t i = 1; i < std::min(m_maxThreads, tasks.size()); ++i)
        {
            post(work);
        }
    }
    catch (const std::bad_alloc&) // the threads that have been asked, and this one, run all tasks
    {
    }
    work();
    std::unique_lock lock(shared->mutex);
    shared->changed.wait(lock, [&] { return shared->running == 0; });
    if (shared->failure)
    {
        std::rethrow_exception(std::move(shared->failure)); // not destroyed by the last thread that lets go of the run
    }
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
