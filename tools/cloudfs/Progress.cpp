#include "Progress.hpp"

#include "Diagnostics.hpp"
#include "Interrupt.hpp"

#include <storage/clients/common/StoreCounters.hpp>

#include <fmt/format.h>

#include <algorithm>
#include <cmath>
#include <cstddef>
#include <exception>
#include <unistd.h>

namespace cloudfs
{

using storage::clients::formatBytes;

namespace
{

constexpr auto delay = std::chrono::milliseconds(500);    // shorter transfers show no bar
constexpr auto interval = std::chrono::milliseconds(100); // faster changes are unreadable
constexpr auto longQuietTime = std::chrono::seconds(5);   // a slow connection sends a part in that time

} // namespace

Progress::Progress(const CommandContext& context, bool mayPaint)
    : m_context(context)
{
    if (mayPaint && ::isatty(STDERR_FILENO) == 1 && ::isatty(STDOUT_FILENO) == 1)
    {
        try
        {
            m_painter = std::thread([this] { repaint(); });
        }
        catch (const std::exception& exception)
        {
            report(fmt::format("continuing without a progress bar: {}", exception.what()));
        }
    }
}

Progress::~Progress()
{
    {
        const std::lock_guard lock(m_mutex);
        m_isClosed = true;
    }
    m_closed.notify_all();
    if (m_painter.joinable())
    {
        m_painter.join();
    }
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
}

void Progress::report(const std::string& text)
{
    const std::lock_guard lock(m_mutex);
    erase();
    diagnostics::printLine(text);
}

void Progress::repaint()
{
    interrupt::blockSignalsInThisThread();
    std::unique_lock lock(m_mutex);
    for (auto time = m_begin + delay; !m_closed.wait_until(lock, time, [this] { return m_isClosed; });
         time = Clock::now() + interval)
    {
        paint();
    }
}

void Progress::paint()
{
    const auto waiting = m_context.waiting();
    const auto quietTime = std::chrono::floor<std::chrono::seconds>(waiting.quietTime);
    const bool isQuiet = quietTime >= longQuietTime;
    if (waiting.failedAttempts == 0 && !isQuiet && m_done == 0)
    {
        erase();
        return;
    }
    const double seconds = std::chrono::duration<double>(Clock::now() - m_begin).count();
    const double rate = static_cast<double>(m_done) / seconds;
    std::string bar;
    std::string left;
    if (m_totalIsFinal && m_total > 0)
    {
        constexpr std::size_t width = 24;
        const double share = std::min(1.0, static_cast<double>(m_done) / static_cast<double>(m_total));
        const auto filled = static_cast<std::size_t>(share * width);
        const auto wait = std::lround(rate > 0 ? static_cast<double>(m_total) * (1 - share) / rate : 0);
        bar = fmt::format("[{:#<{}}{:.<{}}] {:3.0f}%  ", "", filled, "", width - filled, share * 100);
        left = fmt::format("{}:{:02} left  ", wait / 60, wait % 60);
    }
    std::string state =
        fmt::format("{}{}  {}/s", left, formatBytes(m_done), formatBytes(static_cast<std::uint64_t>(rate)));
    if (waiting.failedAttempts > 0)
    {
        state = fmt::format("the store does not respond, attempt {}", waiting.failedAttempts + 1);
    }
    else if (isQuiet)
    {
        state = fmt::format("waiting for the store, {} s", quietTime.count());
    }
    diagnostics::print(fmt::format("\r{}{}\x1b[K", bar, state));
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
