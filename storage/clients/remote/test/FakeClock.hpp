#pragma once

#include <storage/clients/remote/RetryPolicy.hpp>

#include <atomic>
#include <chrono>

namespace storage::clients::test
{

/// A clock that only waits move, and tests. Jitter is at its maximum. Safe for concurrent calls.
class FakeClock
{
public:
    using Duration = RetryClock::Duration;

    std::chrono::steady_clock::time_point now() const { return std::chrono::steady_clock::time_point(m_time.load()); }
    void pass(Duration time) { m_time = m_time.load() + time; }

    /// Refers to this.
    RetryClock clock()
    {
        return {[this] { return now(); }, [this](Duration time) { pass(time); }, [](Duration max) { return max; }};
    }

private:
    std::atomic<Duration> m_time{};
};

} // namespace storage::clients::test
