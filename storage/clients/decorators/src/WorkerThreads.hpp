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

/// Threads that run tasks in the order in which they were posted. One is started when a task finds none idle, up to the
/// number allowed, and stays until destruction. Any thread may post.
class WorkerThreads
{
public:
    /// @param most  threads at a time, at least 1
    explicit WorkerThreads(std::size_t most);
    WorkerThreads(const WorkerThreads&) = delete;
    WorkerThreads& operator=(const WorkerThreads&) = delete;

    /// Run what was posted, then end the threads.
    ~WorkerThreads();

    /// Start the first thread, unless there is one.
    /// @return false: none can be had
    bool start();

    /// Have a task run.
    /// @param task  must not throw
    /// @throws std::system_error when not even one thread can be had, never after start() has been true; the task will
    ///         not run then
    void post(std::function<void()> task);

private:
    void startThread();
    void work();

    const std::size_t m_most;
    std::mutex m_mutex; // innermost: not held while a task runs; guards all that follows
    std::condition_variable m_changed;
    std::deque<std::function<void()>> m_tasks;
    std::size_t m_idle = 0; // threads that wait for a task, or are about to
    bool m_isEnding = false;
    std::vector<std::thread> m_threads;
};

} // namespace storage::clients
