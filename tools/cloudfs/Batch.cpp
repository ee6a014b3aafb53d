#include "Batch.hpp"

#include "CommandError.hpp"
#include "Interrupt.hpp"
#include "Text.hpp"

#include <fmt/format.h>

#include <exception>
#include <utility>

namespace cloudfs
{

Batch::Batch(std::size_t threads, Progress& progress)
    : m_progress(progress)
{
    try
    {
        while (m_threads.size() < threads)
        {
            m_threads.emplace_back([this] { runTasks(); });
        }
    }
    catch (const std::exception& exception) // std::system_error, or std::bad_alloc
    {
        m_progress.report(fmt::format("continuing with {} of {} threads: another one could not be started: {}",
            m_threads.size(), threads, exception.what()));
    }
}

Batch::~Batch()
{
    {
        const std::lock_guard lock(m_mutex);
        m_queue.clear();
    }
    closeAndJoin();
}

void Batch::submit(Task task)
{
    if (m_threads.empty())
    {
        runNow(task);
        return;
    }
    constexpr std::size_t maxQueued = 1024;
    std::unique_lock lock(m_mutex);
    m_changed.wait(lock, [&] { return m_queue.size() < maxQueued; });
    interrupt::throwIfPending();
    m_queue.push_back(std::move(task));
    m_changed.notify_all();
}

bool Batch::runNow(const Task& task)
{
    interrupt::throwIfPending();
    try
    {
        task();
        return true;
    }
    catch (const CommandError& error)
    {
        interrupt::throwIfPending(); // the interrupt caused the failure
        reportFailure(error.what());
    }
    catch (const std::exception& exception)
    {
        interrupt::throwIfPending();
        reportFailure(text::printable(exception.what()));
    }
    return false;
}

void Batch::reportFailure(const std::string& line)
{
    m_failed = true;
    m_progress.report(line);
}

bool Batch::finish()
{
    closeAndJoin();
    interrupt::throwIfPending();
    return !m_failed;
}

void Batch::closeAndJoin()
{
    {
        const std::lock_guard lock(m_mutex);
        m_closed = true;
    }
    m_changed.notify_all();
    for (auto& thread : m_threads)
    {
        thread.join();
    }
    m_threads.clear();
}

void Batch::runTasks()
{
    interrupt::blockSignalsInThisThread();
    while (true)
    {
        Task task;
        {
            std::unique_lock lock(m_mutex);
            m_changed.wait(lock, [&] { return m_closed || !m_queue.empty(); });
            if (m_queue.empty())
            {
                return;
            }
            task = std::move(m_queue.front());
            m_queue.pop_front();
            m_changed.notify_all();
        }
        try
        {
            runNow(task);
        }
        catch (const interrupt::Interrupted&)
        {
            continue; // drops the queued tasks one by one; submit() and finish() throw as well
        }
    }
}

} // namespace cloudfs
