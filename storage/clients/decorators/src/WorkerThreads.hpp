#pragma once

#include <condition_variable>
#include <cstddef>
#include <deque>
#include <functional>
#include <mutex>
#include <thread>
#include <vector>

namespace storage::clients
{

/// A thread pool that starts tasks in the order in which they were posted. A thread is started when a task finds none
/// idle, up to a maximum, and stays until destruction. Any thread may post.
class WorkerThreads
{
public:
    /// @param maxThreads  at least 1
    explicit WorkerThreads(std::size_t maxThreads);
    WorkerThreads(const WorkerThreads&) = delete;
    WorkerThreads& operator=(const WorkerThreads&) = delete;

    /// Run all posted tasks, then end the threads.
    ~WorkerThreads();

    /// Start the first thread, unless there is one.
    /// @return false: no thread could be started, which is logged once
    bool start();

    /// Queue a task.
    /// @param task  must not throw
    /// @throws std::system_error or std::bad_alloc if there is no thread and none can be started; the task will not
    ///         run then. Never thrown because of threads after start() has returned true.
    void post(std::function<void()> task);

private:
    void startThread();
    void work();

    const std::size_t m_maxThreads;
    std::mutex m_mutex; // innermost: not held while a task runs; guards all members below
    std::condition_variable m_changed;
    std::deque<std::function<void()>> m_tasks;
    std::size_t m_idle = 0; // threads that wait for a task, or will next
    bool m_isEnding = false;
    bool m_hasWarned = false; // that a thread could not be started
    std::vector<std::thread> m_threads;
};

} // namespace storage::clients
