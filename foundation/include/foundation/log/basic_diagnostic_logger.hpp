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
/// Every record carries the attributes "Channel" (std::string) and "Severity" (std::uint32_t), so a host may attach
/// Boost.Log sinks of its own. Without further ado records go where setSink says, by default to standard error.
/// Safe for concurrent calls on one instance, and usable until the process ends, static destructors included.
///
/// A caller asks isEnabled() before it builds a message, so that a record which nobody wants costs one load:
///
///     if (logger.isEnabled(severity::detail))
///         logger.write(severity::detail, expensiveText());
template <class Char>
class basic_diagnostic_logger;

template <>
class FOUNDATION_EXPORT basic_diagnostic_logger<char>
{
public:
    /// Let through severity::defaultMask.
    explicit basic_diagnostic_logger(std::string channel);
    ~basic_diagnostic_logger();

    basic_diagnostic_logger(const basic_diagnostic_logger&) = delete;
    basic_diagnostic_logger& operator=(const basic_diagnostic_logger&) = delete;

    /// Tell whether any bit of `severity` is enabled.
    bool isEnabled(std::uint32_t severity) const noexcept
    {
        return (m_enabled.load(std::memory_order_relaxed) & severity) != 0;
    }

    std::uint32_t enabledSeverities() const noexcept { return m_enabled.load(std::memory_order_relaxed); }
    void setEnabledSeverities(std::uint32_t mask) noexcept { m_enabled.store(mask, std::memory_order_relaxed); }

    /// Write a record, unless `severity` is not enabled.
    ///
    /// @param message  UTF-8; may have several lines
    /// A record whose sink throws a standard exception goes to standard error instead.
    void write(std::uint32_t severity, std::string_view message);

private:
    struct Implementation;

    std::atomic<std::uint32_t> m_enabled;
    const std::string m_channel;
    const std::unique_ptr<Implementation> m_implementation; // null if built while static objects are destroyed
};

/// Receives one record. Calls are serialised over all channels. It may log itself; it must not wait for another thread
/// that logs. The views are valid during the call only.
using Sink = std::function<void(std::uint32_t severity, std::string_view channel, std::string_view message)>;

/// Route the records of all loggers of the process to `sink`, in place of the sink before; an empty function restores
/// the default, one line per record on standard error. Any thread may call it. When it returns, the former sink is no
/// longer running, unless it was called by that sink.
FOUNDATION_EXPORT void setSink(Sink sink);

} // namespace foundation::log
