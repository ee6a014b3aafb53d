#pragma once

#include <chrono>
#include <functional>
#include <thread>

namespace storage::clients
{

/// How long a failed request is retried. No value may be negative.
struct RetryPolicy
{
    /// Maximum of the first wait; doubled for each wait that follows.
    std::chrono::milliseconds firstDelay{100};
    /// Limit of the doubling.
    std::chrono::milliseconds maxDelay = std::chrono::seconds(20);
    /// No attempt begins later than this after the request's first one, or after the last one that delivered bytes.
    /// Attempts after the first retry begin only if they would end by then, provided that they take as long as the last
    /// one. If the first attempt to send a part took longer than the budget, the time begins at its end.
    std::chrono::milliseconds budget = std::chrono::minutes(2);
};

/// Return a uniformly distributed random duration in [0, max]. Any thread may call this.
std::chrono::steady_clock::duration uniformJitter(std::chrono::steady_clock::duration max);

/// Clock, sleep and random delays, which a test replaces. Each must be safe for concurrent calls.
struct RetryClock
{
    using Duration = std::chrono::steady_clock::duration;

    std::function<std::chrono::steady_clock::time_point()> now = std::chrono::steady_clock::now;
    std::function<void(Duration)> sleep = std::this_thread::sleep_for<Duration::rep, Duration::period>;
    std::function<Duration(Duration max)> jitter = uniformJitter;
};

} // namespace storage::clients
