#include "Batch.hpp"

#include "CommandError.hpp"
#include "Interrupt.hpp"
#include "Text.hpp"

#include <exception>
#include <utility>

namespace cloudfs
{

Batch::Batch(std::size_t threads, Progress& progress)
    : m_progress(progress)
{
    for (std::size_t i = 0; i < threads; ++i)
    {
        m_threads.emplace_back([this] { work(); });
    }
}

Batch::~Batch()
{
    {
        const std::lock_guard lock(m_mutex);
        m_waiting.clear();
    }
    stop();
}

void Batch::submit(Task task)
{
    constexpr std::size_t enough = 1024;
    std::unique_lock lock(m_mutex);
    m_changed.wait(lock, [&] { return m_waiting.size() < enough; });
    interrupt::throwIfPending();
    m_waiting.push_back(std::move(task));
    m_changed.notify_all();
}

bool Batch::attempt(const Task& task)
{
    interrupt::throwIfPending();
    try
    {
        task();
        return true;
    }
    catch (const CommandError& error)
    {
        interrupt::throwIfPending(); // then it failed for that reason
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
    stop();
    interrupt::throwIfPending();
    return !m_failed;
}

void Batch::stop()
{
    {
        const std::lock_guard lock(m_mutex);
        m_complete = true;
    }
    m_changed.notify_all();
    for (auto& thread : m_threads)
    {
        thread.join();
    }
    m_threads.clear();
}

void Batch::work()
{
    interrupt::blockSignalsInThisThread();
    while (true)
    {
        Task task;
        {
            std::unique_lock lock(m_mutex);
            m_changed.wait(lock, [&] { return m_complete || !m_waiting.empty(); });
            if (m_waiting.empty())
            {
                return;
            }
            task = std::move(m_waiting.front());
            m_waiting.pop_front();
            m_changed.notify_all();
        }
        try
        {
            attempt(task);
        }
        catch (const interrupt::Interrupted&)
        {
            continue; // the submitting thread notices by itself; what waits is dropped in the same way
        }
    }
}

} // namespace cloudfs
