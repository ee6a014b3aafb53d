#pragma once

#include <condition_variable>
#include <cstddef>
#include <deque>
#include <functional>
#include <memory>
#include <mutex>
#include <thread>
#include <vector>

namespace storage::clients
{

/// The threads of one client. Tasks start in the order in which they were posted. A thread is started when a task finds
/// none idle, up to a maximum, and stays until destruction. Any thread may post. Tasks must not wait for other tasks.
class TaskPool
{
public:
    using Task = std::function<void()>;

    /// @param maxThreads  0: every task runs on the thread that posts it
    explicit TaskPool(std::size_t maxThreads);
    TaskPool(const TaskPool&) = delete;
    TaskPool& operator=(const TaskPool&) = delete;

    /// Run all posted tasks, then end the threads.
    ~TaskPool();

    /// Queue a task. If there is no thread and none can be started, run it before returning.
    /// @param task  must not throw
    void post(Task task);

    using IndexedTask = std::function<void(std::size_t index)>;

    /// Call a function for each index below `count`, on this thread and on those of the pool, and wait for all calls.
    ///
    /// Calls start in the order of their indices. Between two of them, a thread of the pool runs the tasks that others
    /// have posted meanwhile. After a failure no further call starts; the first failure is thrown when the running
    /// calls have ended. Do not call this from a task.
    void run(std::size_t count, const IndexedTask& task);

    std::size_t maxThreads() const noexcept { return m_maxThreads; }

private:
    class Run;

    void help(const std::shared_ptr<Run>& run);
    bool requeue(const std::shared_ptr<Run>& run);
    void startThread();
    void work();

    const std::size_t m_maxThreads;
    std::mutex m_mutex; // innermost: not held while a task runs; guards all members below
    std::condition_variable m_changed;
    std::deque<Task> m_tasks;
    std::size_t m_idle = 0; // threads that wait for a task, or will next
    bool m_isEnding = false;
    bool m_hasWarned = false; // that a thread could not be started
    std::vector<std::thread> m_threads;
};

} // namespace storage::clients
