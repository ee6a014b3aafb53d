#include "Diagnostics.hpp"

#include "Text.hpp"

#include <storage/cloudprovider/Logger.hpp>

#include <foundation/log/Severity.hpp>
#include <foundation/log/basic_diagnostic_logger.hpp>

#include <fmt/format.h>

#include <cstdint>
#include <cstdio>
#include <string_view>
#include <utility>

namespace cloudfs::diagnostics
{

namespace severity = foundation::log::severity;

namespace
{

// A record is written by the thread that failed, and asked for by the same thread.
thread_local std::optional<std::string> caughtReason;

void rememberReason(std::string_view message)
{
    constexpr std::string_view label = "std::exception::what: ";
    const std::size_t begin = message.find(label);
    if (begin != std::string_view::npos)
    {
        const std::string_view reason = message.substr(begin + label.size());
        caughtReason = reason.substr(0, reason.find('\n'));
    }
}

} // namespace

void install(bool verbose)
{
    auto& logger = storage::cloudprovider::getLogger();
    logger.setEnabledSeverities(severity::defaultMask | (verbose ? severity::detail | severity::progress : 0));
    foundation::log::setSink(
        [verbose](std::uint32_t level, std::string_view, std::string_view message)
        {
            if (level == severity::error)
            {
                rememberReason(message);
            }
            if (verbose || level == severity::warning)
            {
                fmt::print(stderr, "cloudfs: [{}] {}\n", level, text::printable(message));
            }
        });
}

std::optional<std::string> takeCaughtReason()
{
    return std::exchange(caughtReason, std::nullopt);
}

} // namespace cloudfs::diagnostics
