#include "RequestRate.hpp"

#include <algorithm>
#include <cmath>

namespace storage::clients
{

namespace
{

using Seconds = std::chrono::duration<double>;

constexpr double decrease = 0.5;         // what remains of the rate after a refusal
constexpr Seconds period{10};            // from the refused rate to twice as much
constexpr std::chrono::seconds grace{2}; // refusals of retries that begin so soon belong to the same event
constexpr double minRate = 0.1;          // attempts/s; one may be the first in 10 s, so that several fit into a budget
constexpr double minFirstPeak = 10;      // attempts/s; a client that sends little does not pause after one refusal
constexpr Seconds countedTime{1};        // after this time an attempt counts 1/e

} // namespace

RequestRate::Duration RequestRate::begin(Time now)
{
    const std::lock_guard lock(m_mutex);
    if (now < m_next)
    {
        return m_next - now;
    }
    m_count = recent(now) + 1;
    m_last = now;
    m_next = now + std::chrono::duration_cast<Duration>(Seconds(1 / rate(now)));
    return Duration::zero();
}

void RequestRate::refused(Time begun, Time now)
{
    const std::lock_guard lock(m_mutex);
    if (begun < m_decreased + grace)
    {
        return;
    }
    // A limit above what was sent has limited nothing.
    m_peak = std::max(minRate, std::min(rate(now), std::max(minFirstPeak, recent(now))));
    m_decreased = now;
    m_next = std::max(m_next, now + std::chrono::duration_cast<Duration>(Seconds(1 / rate(now))));
}

double RequestRate::rate(Time now) const
{
    const double sincePeak = Seconds(now - m_decreased) / period - std::cbrt(1 - decrease);
    return std::max(minRate, m_peak * (1 + sincePeak * sincePeak * sincePeak));
}

/// How many attempts began in the last second, approximately.
double RequestRate::recent(Time now) const
{
    return m_count * std::exp(Seconds(m_last - now) / countedTime);
}

} // namespace storage::clients
