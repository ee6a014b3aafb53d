#pragma once

#include <boost/date_time/posix_time/ptime.hpp>

#include <string>

namespace storage::clients
{

/// Parse a time such as "Sat, 21 Nov 2026 10:50:54 GMT"; not_a_date_time for any other text.
boost::posix_time::ptime readHttpTime(const std::string& text);

/// Parse a time such as "2026-11-21T10:50:54.123Z"; not_a_date_time for any other text.
boost::posix_time::ptime readIsoTime(const std::string& text);

} // namespace storage::clients
