#include "Times.hpp"

#include <boost/date_time/posix_time/conversion.hpp>
#include <boost/date_time/posix_time/posix_time_types.hpp>
#include <boost/date_time/posix_time/time_parsers.hpp>

#include <curl/curl.h>

#include <stdexcept>

namespace storage::clients::s3
{

boost::posix_time::ptime readHttpTime(const std::string& text)
{
    const std::time_t seconds = curl_getdate(text.c_str(), nullptr);
    return seconds < 0 ? boost::posix_time::ptime() : boost::posix_time::from_time_t(seconds);
}

boost::posix_time::ptime readIsoTime(const std::string& text)
{
    try
    {
        return boost::posix_time::from_iso_extended_string(text.substr(0, text.find('Z')));
    }
    catch (const std::exception&)
    {
        return {};
    }
}

} // namespace storage::clients::s3
