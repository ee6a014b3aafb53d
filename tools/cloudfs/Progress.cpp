#include "Progress.hpp"
#include "Diagnostics.hpp"

#include <storage/clients/common/StoreCounters.hpp>

#include <fmt/format.h>

#include <algorithm>
#include <cmath>
#include <cstddef>
#include <unistd.h>

namespace cloudfs
{

using storage::clients::formatBytes;

namespace
{

constexpr auto delay = std::chrono::milliseconds(500);    // shorter transfers show no bar
constexpr auto interval = std::chrono::milliseconds(100); // faster changes are unreadable

} // namespace

Progress::Progress(bool mayPaint)
    : m_enabled(mayPaint && ::isatty(STDERR_FILENO) == 1 && ::isatty(STDOUT_FILENO) == 1)
    , m_nextPaint(m_begin + delay)
{
}

Progress::~Progress()
{
    erase();
}

void Progress::addToTotal(std::uint64_t bytes)
{
    const std::lock_guard lock(m_mutex);
    m_total += bytes;
}

void Progress::markTotalFinal()
{
    const std::lock_guard lock(m_mutex);
    m_totalIsFinal = true;
}

void Progress::advance(std::uint64_t bytes)
{
    const std::lock_guard lock(m_mutex);
    m_done += bytes;
    const auto now = Clock::now();
    if (m_enabled && now >= m_nextPaint)
    {
        m_nextPaint = now + interval;
        paint(now);
    }
}

void Progress::report(const std::string& text)
{
    const std::lock_guard lock(m_mutex);
    erase();
    diagnostics::printLine(text);
}

void Progress::paint(Clock::time_point now)
{
    const double seconds = std::chrono::duration<double>(now - m_begin).count();
    const double rate = static_cast<double>(m_done) / seconds;
    std::string bar;
    if (m_totalIsFinal && m_total > 0)
    {
        constexpr std::size_t width = 24;
        const double share = std::min(1.0, static_cast<double>(m_done) / static_cast<double>(m_total));
        const auto filled = static_cast<std::size_t>(share * width);
        const double left = rate > 0 ? static_cast<double>(m_total) * (1 - share) / rate : 0;
        const auto wait = std::lround(left);
        bar = fmt::format("[{:#<{}}{:.<{}}] {:3.0f}%  {}:{:02} left  ", "", filled, "", width - filled, share * 100,
            wait / 60, wait % 60);
    }
    diagnostics::print(
        fmt::format("\r{}{}  {}/s\x1b[K", bar, formatBytes(m_done), formatBytes(static_cast<std::uint64_t>(rate))));
    m_painted = true;
}

void Progress::erase()
{
    if (m_painted)
    {
        diagnostics::print("\r\x1b[K");
        m_painted = false;
    }
}

} // namespace cloudfs
