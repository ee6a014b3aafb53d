#include "Diagnostics.hpp"

#include "Text.hpp"

#include <storage/cloudprovider/Logger.hpp>

#include <foundation/log/Severity.hpp>
#include <foundation/log/basic_diagnostic_logger.hpp>

#include <fmt/format.h>

#include <cstdint>
#include <cstdio>
#include <string_view>

namespace cloudfs::diagnostics
{

namespace severity = foundation::log::severity;

void install(bool verbose)
{
    auto& logger = storage::cloudprovider::getLogger();
    logger.setEnabledSeverities(severity::defaultMask | (verbose ? severity::detail | severity::progress : 0));
    foundation::log::setSink(
        [verbose](std::uint32_t level, std::string_view, std::string_view message)
        {
            if (verbose || level == severity::warning)
            {
                fmt::print(stderr, "cloudfs: [{}] {}\n", level, text::printable(message));
            }
        });
}

} // namespace cloudfs::diagnostics
