#include "WorkerThreads.hpp"

#include <storage/cloudprovider/Logger.hpp>

#include <foundation/log/Severity.hpp>

#include <exception>
#include <string>
#include <utility>

namespace storage::clients
{

WorkerThreads::WorkerThreads(std::size_t maxThreads)
    : m_maxThreads(maxThreads)
{
}

WorkerThreads::~WorkerThreads()
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

bool WorkerThreads::start()
try
{
    const std::lock_guard lock(m_mutex);
    if (m_threads.empty())
    {
        startThread();
    }
    return true;
}
catch (const std::exception&)
{
    return false; // startThread() has logged it
}

void WorkerThreads::post(std::function<void()> task)
{
    const std::lock_guard lock(m_mutex);
    if (m_tasks.size() >= m_idle && m_threads.size() < m_maxThreads)
    {
        startThread();
    }
    m_tasks.push_back(std::move(task));
    m_changed.notify_one();
}

void WorkerThreads::startThread()
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
        if (m_threads.empty())
        {
            throw;
        }
    }
}

void WorkerThreads::work()
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
