#pragma once

#include <chrono>
#include <cstdint>
#include <mutex>
#include <string>

namespace cloudfs
{

/// A bar on standard error for a transfer that takes long, and the lines that appear above it.
///
/// Paints only when standard output and standard error are terminals, begins after half a second and repaints at most
/// ten times a second. Safe for concurrent calls on one instance.
class Progress
{
public:
    /// @param wanted  false: never paint, because the terminal is needed for something else
    explicit Progress(bool wanted = true);
    Progress(const Progress&) = delete;
    Progress& operator=(const Progress&) = delete;

    /// Erase the bar.
    ~Progress();

    /// So many bytes are to come, beside those announced before.
    void addToTotal(std::uint64_t bytes);

    /// Everything to come has been announced: a percentage makes sense from now on.
    void markTotalFinal();

    /// So many bytes went through.
    void advance(std::uint64_t bytes);

    /// Print "cloudfs: TEXT" as a whole line on standard error.
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
