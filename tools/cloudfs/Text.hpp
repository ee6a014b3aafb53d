#pragma once

#include <boost/date_time/posix_time/ptime.hpp>

#include <string>
#include <string_view>

/// Values as people read them.
namespace cloudfs::text
{

/// Escape as \xHH what a terminal would act on (control characters, those of text direction included) and bytes that
/// are not UTF-8.
std::string printable(std::string_view text);

/// A time in the local zone as `ls -l` writes it, always twelve characters wide; "-" for no time.
///
/// @param time  UTC
std::string shortTime(const boost::posix_time::ptime& time);

/// A time in the local zone with date, seconds and offset; "unknown" for no time.
///
/// @param time  UTC
std::string fullTime(const boost::posix_time::ptime& time);

} // namespace cloudfs::text
