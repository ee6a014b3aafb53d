#include "Diagnostics.hpp"

#include "Text.hpp"

#include <storage/cloudprovider/Logger.hpp>

#include <foundation/log/Severity.hpp>
#include <foundation/log/basic_diagnostic_logger.hpp>

#include <fmt/format.h>

#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <string_view>

namespace cloudfs::diagnostics
{

namespace severity = foundation::log::severity;

void printLine(std::string_view text)
{
    print(fmt::format("cloudfs: {}\n", text));
}

void print(std::string_view text) noexcept
{
    // Not fmt::print(), which throws when standard error is closed or its disk is full.
    [[maybe_unused]] const std::size_t written = std::fwrite(text.data(), 1, text.size(), stderr);
}

void install(bool verbose)
{
    auto& logger = storage::cloudprovider::getLogger();
    logger.setEnabledSeverities(severity::defaultMask | (verbose ? severity::detail | severity::progress : 0));
    foundation::log::setSink(
        [verbose](std::uint32_t level, std::string_view, std::string_view message)
        {
            if (verbose || level == severity::warning)
            {
                printLine(fmt::format("[{}] {}", level, text::printable(message)));
            }
        });
}

} // namespace cloudfs::diagnostics
