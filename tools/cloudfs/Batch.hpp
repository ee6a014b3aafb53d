#pragma once

#include "Progress.hpp"

#include <atomic>
#include <condition_variable>
#include <cstddef>
#include <deque>
#include <functional>
#include <mutex>
#include <thread>
#include <vector>

namespace cloudfs
{

/// Runs the tasks of one command on a fixed number of threads, or fewer if the system refuses to start that many.
///
/// A failed task is reported in one line; the others continue. All operations are called by one thread; the tasks run
/// on the batch's own threads; if none could be started, submit() runs them.
class Batch
{
public:
    using Task = std::function<void()>;

    /// Start the threads. A thread that cannot be started is reported, but is not a failure.
    ///
    /// @param threads   number of threads, at least 1
    /// @param progress  prints the failures; must outlive the batch
    Batch(std::size_t threads, Progress& progress);
    Batch(const Batch&) = delete;
    Batch& operator=(const Batch&) = delete;

    /// Drop the tasks that have not started, and wait for the others.
    ~Batch();

    /// Queue a task. Blocks while the queue is full, so that a large tree is not held in memory.
    ///
    /// @throws interrupt::Interrupted; the task was not queued, or was interrupted
    void submit(Task task);

    /// Run a task now, on the calling thread, and report its failure.
    ///
    /// @return whether it succeeded
    /// @throws interrupt::Interrupted
    bool runNow(const Task& task);

    /// Report a failure that no task threw, such as a skipped entry. finish() then returns false.
    void reportFailure(const std::string& line);

    /// Wait until every task has run. Nothing may be submitted afterwards.
    ///
    /// @return whether there was no failure
    /// @throws interrupt::Interrupted
    bool finish();

private:
    void runTasks();
    void closeAndJoin();

    Progress& m_progress;
    std::atomic<bool> m_failed{false};

    std::mutex m_mutex; // taken alone; never held while a task runs
    std::condition_variable m_changed;
    std::deque<Task> m_queue; // guarded by m_mutex
    bool m_closed = false;    // guarded by m_mutex; nothing more will be submitted

    std::vector<std::thread> m_threads;
};

} // namespace cloudfs
