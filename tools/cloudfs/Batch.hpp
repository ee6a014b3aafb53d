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

/// Runs the pieces of one command, several at a time. A piece that fails is reported in one line, and the others go on.
///
/// Used by one thread; the pieces run on the batch's own.
class Batch
{
public:
    using Task = std::function<void()>;

    /// @param threads   at least 1
    /// @param progress  where failures are reported; must outlive the batch
    Batch(std::size_t threads, Progress& progress);
    Batch(const Batch&) = delete;
    Batch& operator=(const Batch&) = delete;

    /// Drop the tasks that have not begun, and wait for the others.
    ~Batch();

    /// Let a task run on one of the threads. Waits while many are waiting, so that a large tree is not held in memory.
    ///
    /// @throws interrupt::Interrupted
    void submit(Task task);

    /// Run a task now, on this thread.
    ///
    /// @return whether it succeeded; a failure was reported
    /// @throws interrupt::Interrupted
    bool attempt(const Task& task);

    /// Report something that was left out and counts as a failure of the command.
    void reportFailure(const std::string& line);

    /// Wait until every task has run.
    ///
    /// @return whether everything succeeded
    /// @throws interrupt::Interrupted
    bool finish();

private:
    void work();
    void stop();

    Progress& m_progress;
    std::atomic<bool> m_failed{false};

    std::mutex m_mutex; // taken alone; never held while a task runs
    std::condition_variable m_changed;
    std::deque<Task> m_waiting; // guarded by m_mutex
    bool m_complete = false;    // guarded by m_mutex; nothing more will be submitted

    std::vector<std::thread> m_threads;
};

} // namespace cloudfs
