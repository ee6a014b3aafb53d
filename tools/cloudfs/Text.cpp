#include "Text.hpp"

#include <fl/i18n.hpp>

#include <boost/date_time/posix_time/conversion.hpp>
#include <fmt/chrono.h>
#include <fmt/format.h>

#include <cstddef>
#include <ctime>
#include <stdexcept>

namespace cloudfs::text
{

namespace
{

bool isUtf8(std::string_view text)
{
    try
    {
        fl::i18n::utf8_to_ustring(text);
        return true;
    }
    catch (const std::range_error&)
    {
        return false; // an expected outcome, not a failure
    }
}

/// Return how many bytes at the start of `text` must be escaped before they reach a terminal.
std::size_t unprintablePrefix(std::string_view text, bool utf8)
{
    const auto at = [&](std::size_t i) { return i < text.size() ? static_cast<unsigned char>(text[i]) : 0U; };
    if (at(0) < 0x20 || at(0) == 0x7F || (at(0) >= 0x80 && !utf8))
    {
        return 1;
    }
    if (at(0) == 0xC2 && at(1) < 0xA0) // U+0080 to U+009F
    {
        return 2;
    }
    const bool isDirectionMark =
        at(0) == 0xE2 && ((at(1) == 0x80 && ((at(2) >= 0xAA && at(2) <= 0xAE) || at(2) == 0x8E || at(2) == 0x8F)) ||
                             (at(1) == 0x81 && at(2) >= 0xA6 && at(2) <= 0xA9));
    return isDirectionMark ? 3 : 0;
}

std::tm localTime(const boost::posix_time::ptime& time)
{
    const std::time_t seconds = boost::posix_time::to_time_t(time);
    std::tm local{};
    ::localtime_r(&seconds, &local);
    return local;
}

} // namespace

std::string printable(std::string_view text)
{
    const bool utf8 = isUtf8(text);
    std::string result;
    while (!text.empty())
    {
        const std::size_t escaped = unprintablePrefix(text, utf8);
        for (std::size_t i = 0; i < escaped; ++i)
        {
            result += fmt::format("\\x{:02X}", static_cast<unsigned char>(text[i]));
        }
        if (escaped == 0)
        {
            result += text.front();
        }
        text.remove_prefix(escaped == 0 ? 1 : escaped);
    }
    return result;
}

std::string shortTime(const boost::posix_time::ptime& time)
{
    if (time.is_special())
    {
        return fmt::format("{:>12}", "-");
    }
    // The year replaces the time of day for times older than half a year or in the future.
    constexpr std::time_t halfYear = 182L * 24 * 3600;
    const std::time_t age = std::time(nullptr) - boost::posix_time::to_time_t(time);
    const bool recent = age >= -60 && age < halfYear;
    return recent ? fmt::format("{:%b %e %H:%M}", localTime(time)) : fmt::format("{:%b %e  %Y}", localTime(time));
}

std::string fullTime(const boost::posix_time::ptime& time)
{
    return time.is_special() ? "unknown" : fmt::format("{:%Y-%m-%d %H:%M:%S %z}", localTime(time));
}

} // namespace cloudfs::text
