#pragma once

#include "CommandContext.hpp"

#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <mutex>
#include <string>
#include <thread>

namespace cloudfs
{

/// A progress bar on standard error for a long transfer, and the error lines printed meanwhile.
///
/// Painted only if standard output and standard error are terminals; first after half a second, then ten times a
/// second by a thread of its own, also while nothing is transferred. While a request fails and is retried, or none has
/// ended for five seconds, the bar says so instead of the time left, also before the first byte. Safe for concurrent
/// calls on one instance.
class Progress
{
public:
    /// @param context   must outlive this object
    /// @param mayPaint  false: never paint, because the terminal shows the file itself, or what the user types
    explicit Progress(const CommandContext& context, bool mayPaint = true);
    Progress(const Progress&) = delete;
    Progress& operator=(const Progress&) = delete;

    /// Erase the bar.
    ~Progress();

    /// Add the size of a file to the total, in bytes.
    void addToTotal(std::uint64_t bytes);

    /// State that the total is complete: from now on the bar shows a percentage.
    void markTotalFinal();

    /// Count transferred bytes.
    void advance(std::uint64_t bytes);

    /// Print the line "cloudfs: TEXT" on standard error, instead of the bar.
    void report(const std::string& text);

private:
    using Clock = std::chrono::steady_clock;

    void repaint();
    void paint();
    void erase();

    const CommandContext& m_context;
    const Clock::time_point m_begin = Clock::now();

    std::mutex m_mutex; // only RemoteClient's lock is taken while it is held
    std::condition_variable m_closed;
    // guarded by m_mutex
    std::uint64_t m_total = 0;
    std::uint64_t m_done = 0;
    bool m_totalIsFinal = false;
    bool m_painted = false;
    bool m_isClosed = false;

    std::thread m_painter; // last: uses the members above
};

} // namespace cloudfs
