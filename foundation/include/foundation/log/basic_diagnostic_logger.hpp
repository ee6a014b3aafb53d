#pragma once

#include <foundation/Export.hpp>
#include <foundation/log/Severity.hpp>

#include <atomic>
#include <cstdint>
#include <functional>
#include <memory>
#include <string>
#include <string_view>

namespace foundation::log
{

/// Write diagnostic records of one channel into the Boost.Log core of the process.
///
/// Every record has the attributes "Channel" (std::string) and "Severity" (std::uint32_t), so a host may attach its own
/// Boost.Log sinks. Records also go to the sink that setSink() sets, by default to standard error.
/// Safe for concurrent calls on one instance. Usable until the process ends, even in static destructors.
///
/// Check isEnabled() before building a message, so that a disabled record costs one atomic load:
///
///     if (logger.isEnabled(severity::detail))
///         logger.write(severity::detail, expensiveText());
template <class Char>
class basic_diagnostic_logger;

template <>
class FOUNDATION_EXPORT basic_diagnostic_logger<char>
{
public:
    /// Enable severity::defaultMask.
    ///
    /// @param channel  the "Channel" of this logger's records
    explicit basic_diagnostic_logger(std::string channel);
    ~basic_diagnostic_logger();

    basic_diagnostic_logger(const basic_diagnostic_logger&) = delete;
    basic_diagnostic_logger& operator=(const basic_diagnostic_logger&) = delete;

    /// Tell whether any bit of `severity` is enabled in the mask.
    bool isEnabled(std::uint32_t severity) const noexcept
    {
        return (m_enabled.load(std::memory_order_relaxed) & severity) != 0;
    }

    std::uint32_t enabledSeverities() const noexcept { return m_enabled.load(std::memory_order_relaxed); }
    void setEnabledSeverities(std::uint32_t mask) noexcept { m_enabled.store(mask, std::memory_order_relaxed); }

    /// Write a record if any bit of `severity` is enabled.
    ///
    /// @param message  UTF-8; may have several lines
    /// If the sink throws a std::exception, the record goes to standard error instead.
    void write(std::uint32_t severity, std::string_view message);

private:
    struct FOUNDATION_HIDDEN Implementation;

    std::atomic<std::uint32_t> m_enabled;
    const std::string m_channel;
    const std::unique_ptr<Implementation> m_implementation; // null if constructed while the process ends
};

/// Receives one record. Calls are serialised across all loggers. A sink may itself log and call setSink(), but must not
/// wait for another thread that logs: that would deadlock. The views are valid only during the call.
using Sink = std::function<void(std::uint32_t severity, std::string_view channel, std::string_view message)>;

/// Send the records of all loggers of the process to `sink` instead of the previous sink. An empty function restores
/// the default: one line per record on standard error. Any thread may call this. When it returns, the previous sink is
/// no longer running, unless that sink made the call.
FOUNDATION_EXPORT void setSink(Sink sink);

} // namespace foundation::log
