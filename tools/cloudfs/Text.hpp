#pragma once

#include <boost/date_time/posix_time/ptime.hpp>

#include <string>
#include <string_view>

/// Values formatted for people.
namespace cloudfs::text
{

/// Escape control characters, characters that change the text direction, and bytes that are not UTF-8 as \xHH, so that
/// they cannot control the terminal.
std::string printable(std::string_view text);

/// Format a time in the local zone as `ls -l` does, twelve characters wide; "-" for no time.
///
/// @param time  UTC
std::string shortTime(const boost::posix_time::ptime& time);

/// Format a time in the local zone with date, seconds and offset from UTC; "unknown" for no time.
///
/// @param time  UTC
std::string fullTime(const boost::posix_time::ptime& time);

} // namespace cloudfs::text
