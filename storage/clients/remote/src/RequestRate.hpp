#pragma once

#include <chrono>
#include <limits>
#include <mutex>

namespace storage::clients
{

/// Limits the attempts that all requests of a client begin per second. There is no limit until the store refuses an
/// attempt because there are too many.
///
/// A refusal halves the rate of that moment. After it the rate follows a cubic curve: it reaches the refused rate again
/// after 8 s, stays near it for some seconds, and has doubled it 10 s later. After a minute without a refusal it is 140
/// times as high, which hardly limits anything. bench/scale/simulate.py compares these numbers with others.
///
/// Safe for concurrent calls. Time comes from the caller.
class RequestRate
{
public:
    using Duration = std::chrono::steady_clock::duration;
    using Time = std::chrono::steady_clock::time_point;

    /// Begin an attempt if it is allowed now. Among attempts that wait there is no order.
    /// @return zero: it begins. Otherwise nothing has changed, and there is no turn before this time has passed.
    Duration begin(Time now);

    /// The store has refused an attempt. The rate is halved only once for all attempts that were in progress, and for
    /// their first retries: what began less than 2 s after the last decrease says nothing about the rate after it.
    /// @param begun  when the attempt began
    void refused(Time begun, Time now);

private:
    double rate(Time now) const;
    double recent(Time now) const;

    std::mutex m_mutex;                                      // innermost; guards everything below
    double m_peak = std::numeric_limits<double>::infinity(); // attempts per second at the last refusal
    Time m_decreased;                                        // when that was
    Time m_next;                                             // no attempt begins earlier
    double m_count = 0;                                      // attempts until m_last; old ones count less
    Time m_last;                                             // when the last attempt began
};

} // namespace storage::clients
