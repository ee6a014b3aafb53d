#pragma once

#include <chrono>
#include <cstdint>
#include <mutex>
#include <string>

namespace cloudfs
{

/// A progress bar on standard error for a long transfer, and the error lines printed meanwhile.
///
/// Painted only if standard output and standard error are terminals; first after half a second, then at most ten times
/// a second. Safe for concurrent calls on one instance.
class Progress
{
public:
    /// @param mayPaint  false: never paint, because the terminal shows the file itself
    explicit Progress(bool mayPaint = true);
    Progress(const Progress&) = delete;
    Progress& operator=(const Progress&) = delete;

    /// Erase the bar.
    ~Progress();

    /// Add the size of a file to the total, in bytes.
    void addToTotal(std::uint64_t bytes);

    /// State that the total is complete: from now on the bar shows a percentage.
    void markTotalFinal();

    /// Count transferred bytes, and repaint when it is time.
    void advance(std::uint64_t bytes);

    /// Print the line "cloudfs: TEXT" on standard error, instead of the bar.
    void report(const std::string& text);

private:
    using Clock = std::chrono::steady_clock;

    void paint(Clock::time_point now);
    void erase();

    const bool m_enabled;
    const Clock::time_point m_begin = Clock::now();

    std::mutex m_mutex; // taken alone
    // guarded by m_mutex
    Clock::time_point m_nextPaint;
    std::uint64_t m_total = 0;
    std::uint64_t m_done = 0;
    bool m_totalIsFinal = false;
    bool m_painted = false;
};

} // namespace cloudfs
