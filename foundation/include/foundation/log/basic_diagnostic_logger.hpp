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

/// Write diagnostic records of one channel.
///
/// Records go to the sink that setSink() sets, by default to standard error. They also go to the sinks that the host
/// has attached to the core of Boost.Log, unless its filters reject them, with the attributes "Channel" (std::string),
/// "Severity" (std::uint32_t) and "Message" (std::string). If the host has attached none, Boost.Log writes the host's
/// own records to standard output, as it would without this class, and none of these.
///
/// Logging never throws. Safe for concurrent calls on one instance. Filters and exception handlers of the core must not
/// log with this class: that would deadlock. An instance is usable until its destructor. While the process ends, its
/// records bypass Boost.Log, and the sink must still be usable.
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
    /// If a sink throws, the record is written to standard error, with the reason.
    void write(std::uint32_t severity, std::string_view message) noexcept;

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
