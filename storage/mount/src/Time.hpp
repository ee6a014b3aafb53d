#pragma once

#include <boost/date_time/posix_time/posix_time_types.hpp>

#include <chrono>

namespace storage::mount
{

/// A time of a file, UTC.
using Time = std::chrono::sys_time<std::chrono::nanoseconds>;

inline Time now()
{
    return std::chrono::system_clock::now();
}

/// @param time  not special, UTC
inline Time toTime(const boost::posix_time::ptime& time)
{
    const boost::posix_time::ptime epoch(boost::gregorian::date(1970, 1, 1));
    return Time(std::chrono::microseconds((time - epoch).total_microseconds()));
}

} // namespace storage::mount
