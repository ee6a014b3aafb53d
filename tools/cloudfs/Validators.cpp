#include "Validators.hpp"

#include <fmt/format.h>

#include <cstddef>
#include <map>
#include <string>

namespace cloudfs
{

namespace
{

constexpr std::uint64_t maxAge = 36'500ULL * 24 * 3600; // seconds; the time library does not support much earlier dates

/// @return the reason why the text is refused; empty if it was converted
std::string convertAge(std::string& text)
{
    static const std::map<std::string, std::uint64_t> units{{"s", 1}, {"m", 60}, {"h", 3600}, {"d", 24 * 3600}};
    const std::size_t unitBegin = text.find_last_of("0123456789 ") + 1; // 0 if there is neither
    const std::string unit = text.substr(unitBegin);
    if (unit.empty())
    {
        return "a unit is required; use s, m, h or d";
    }
    const auto found = units.find(unit);
    if (found == units.end())
    {
        return fmt::format("unknown unit \"{}\"; use s, m, h or d", unit);
    }
    const std::uint64_t seconds = found->second;
    std::string number = text.substr(0, unitBegin);
    number.erase(number.find_last_not_of(' ') + 1);
    if (!CLI::Range(std::uint64_t{0}, maxAge / seconds)(number).empty())
    {
        return fmt::format("must be between 0{0} and {1}{0}", unit, maxAge / seconds);
    }
    text = std::to_string(std::stoull(number, nullptr, 0) * seconds);
    return {};
}

} // namespace

CLI::Validator numberBetween(std::uint64_t min, std::uint64_t max)
{
    const auto check = [range = CLI::Range(min, max), min, max](std::string& text)
    { return range(text).empty() ? std::string() : fmt::format("must be between {} and {}", min, max); };
    return {check, ""};
}

CLI::Validator ageInSeconds()
{
    return {convertAge, ""};
}

} // namespace cloudfs
