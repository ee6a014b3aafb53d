#include <storage/clients/http/Times.hpp>

#include <boost/date_time/posix_time/conversion.hpp>
#include <boost/date_time/posix_time/posix_time_types.hpp>
#include <boost/date_time/posix_time/time_parsers.hpp>

#include <curl/curl.h>

#include <algorithm>
#include <stdexcept>
#include <string_view>

namespace storage::clients
{

namespace
{

/// Whether a character of a time stands where the form has this one: any digit for "0".
bool matches(char c, char form)
{
    return form == '0' ? c >= '0' && c <= '9' : c == form;
}

} // namespace

boost::posix_time::ptime readHttpTime(const std::string& text)
{
    const std::time_t seconds = curl_getdate(text.c_str(), nullptr);
    return seconds < 0 ? boost::posix_time::ptime() : boost::posix_time::from_time_t(seconds);
}

boost::posix_time::ptime readIsoTime(const std::string& text)
{
    // Boost's behaviour is undefined for texts of another form.
    constexpr std::string_view form = "0000-00-00T00:00:00";
    const std::string time = text.substr(0, text.find('Z'));
    const auto hasForm = [](std::string_view part, std::string_view expected)
    { return part.size() == expected.size() && std::equal(part.begin(), part.end(), expected.begin(), &matches); };
    const std::string_view fraction = std::string_view(time).substr(std::min(form.size(), time.size()));
    if (!hasForm(std::string_view(time).substr(0, form.size()), form) ||
        !(fraction.empty() ||
            (fraction.size() > 1 && hasForm(fraction, std::string_view(".000000000").substr(0, fraction.size())))))
    {
        return {};
    }
    try
    {
        return boost::posix_time::from_iso_extended_string(time);
    }
    catch (const std::exception&)
    {
        return {};
    }
}

} // namespace storage::clients
