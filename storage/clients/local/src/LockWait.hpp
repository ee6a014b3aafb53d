#pragma once

#include <chrono>
#include <filesystem>
#include <functional>
#include <optional>
#include <string>

#include <sys/types.h>

namespace storage::clients::local
{

/// How long a client waits for locks that other clients hold.
struct LockLimits
{
    std::chrono::milliseconds timeout;
    std::function<bool()> interrupted; ///< empty: never
};

inline const LockLimits noWait{std::chrono::milliseconds(0), {}};

/// One wait for a lock. It is over when the time is, and earlier when the process is interrupted.
class LockWait
{
public:
    /// @param limits  must outlive this
    explicit LockWait(const LockLimits& limits);

    /// Pause before the next attempt to take the lock.
    ///
    /// @return false: the wait is over
    bool pause();

    /// When the wait is over at the latest.
    std::chrono::steady_clock::time_point end() const noexcept { return m_begin + m_limits->timeout; }

    /// Throw StoreError of kind Locked.
    ///
    /// @param what    that is locked: "the index"
    /// @param holder  as findLockHolder() returned it
    [[noreturn]] void fail(const std::string& what, std::optional<pid_t> holder) const;

private:
    bool isInterrupted() const { return m_limits->interrupted && m_limits->interrupted(); }

    const LockLimits* m_limits;
    std::chrono::steady_clock::time_point m_begin;
};

/// Find the process that keeps others from locking this byte of a file.
///
/// @param readers  whether a shared lock of another process is also in the way
/// @return nullopt: there is none, or the system does not tell
std::optional<pid_t> findLockHolder(const std::filesystem::path& file, std::int64_t byte = 0, bool readers = false);

} // namespace storage::clients::local
