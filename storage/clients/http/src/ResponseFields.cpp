#include <storage/clients/http/ResponseFields.hpp>

#include <storage/clients/http/Times.hpp>

#include <boost/date_time/posix_time/posix_time.hpp>

#include <fmt/format.h>

#include <algorithm>
#include <charconv>
#include <cstdlib>

namespace storage::clients
{

std::optional<std::uint64_t> readNumber(std::string_view text)
{
    std::uint64_t number = 0;
    const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), number);
    return error == std::errc() && end == text.data() + text.size() ? std::optional(number) : std::nullopt;
}

std::optional<std::uint64_t> lengthOf(const HttpResponse& response)
{
    const std::string* const field = response.headers.find("Content-Length");
    return field == nullptr ? std::nullopt : readNumber(*field);
}

std::string rangeField(const ByteRange& range)
{
    return fmt::format("bytes={}-{}", range.offset, range.offset + range.size - 1);
}

std::string unquotedTag(std::string tag)
{
    if (tag.size() >= 2 && tag.front() == '"' && tag.back() == '"')
    {
        return tag.substr(1, tag.size() - 2);
    }
    return tag;
}

std::string quotedTag(const std::string& tag)
{
    return tag.starts_with("W/") ? tag : '"' + tag + '"';
}

std::optional<std::chrono::milliseconds> retryAfter(const HttpResponse& response)
{
    const std::string* const exact = response.headers.find("x-ms-retry-after-ms");
    if (const auto time = exact == nullptr ? std::nullopt : readNumber(*exact); time && *time < 100'000'000)
    {
        return std::chrono::milliseconds(*time);
    }
    const std::string* const field = response.headers.find("Retry-After");
    if (field == nullptr || field->empty())
    {
        return std::nullopt;
    }
    if (field->find_first_not_of("0123456789") == std::string::npos && field->size() < 8)
    {
        return std::chrono::seconds(std::stol(*field));
    }
    const auto moment = readHttpTime(*field);
    if (moment.is_special())
    {
        return std::nullopt;
    }
    const auto seconds = (moment - boost::posix_time::second_clock::universal_time()).total_seconds();
    return std::chrono::seconds(std::max(seconds, decltype(seconds){0}));
}

std::string clockHint(const HttpResponse& response)
{
    const std::string* const date = response.headers.find("Date");
    const auto theirs = date == nullptr ? boost::posix_time::ptime() : readHttpTime(*date);
    if (theirs.is_special())
    {
        return "set this machine's clock";
    }
    const auto ahead = (boost::posix_time::second_clock::universal_time() - theirs).total_seconds();
    return fmt::format(
        "this machine's clock is {} s {} the store's; set it", std::abs(ahead), ahead < 0 ? "behind" : "ahead of");
}

} // namespace storage::clients
