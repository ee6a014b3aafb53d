#pragma once

#include "RequestRate.hpp"

#include <storage/clients/common/Operation.hpp>
#include <storage/clients/common/StoreCounters.hpp>
#include <storage/clients/common/TransientException.hpp>
#include <storage/clients/remote/RemoteClient.hpp>
#include <storage/clients/remote/RetryPolicy.hpp>

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <exception>
#include <functional>
#include <mutex>
#include <set>
#include <string>
#include <type_traits>

namespace storage::clients
{

/// The common fate of the requests of one upload or download. When one of them has used up its budget, the others are
/// not retried for the time of another budget, so that a store that went away is not waited for again with each part. A
/// request that succeeds ends this early. Safe for concurrent calls.
class Outage
{
public:
    using Time = std::chrono::steady_clock::time_point;

    /// @param failure  what the requests fail with from now on
    /// @param isAbort  it is the failure of a request that aborts the upload
    void begin(std::exception_ptr failure, Time end, bool isAbort);
    void end();

    /// While the transfer is being aborted, all its other requests fail, and none of them waits for another attempt. It
    /// is until all who have set this have reset it.
    void setAborting(bool isAborting);

    /// What requests fail with now. @return null: they may be sent
    std::exception_ptr failure(Time now, bool isAbort = false) const;

    /// Whether a request that aborts the upload may make an attempt: only the first one in an outage may.
    bool mayAbort(Time now);

private:
    mutable std::mutex m_mutex; // innermost; guards everything below
    std::exception_ptr m_failure;
    Time m_end;
    bool m_isAbortTried = false;
    unsigned m_aborting = 0; // who have set it
};

/// Retries requests that fail with a TransientException, with exponential backoff and jitter, and counts the attempts.
///
/// Waits: the k-th wait, k = 0 first, is uniformly random in [0, min(maxDelay, firstDelay * 2^k)], so that clients
/// which failed at the same time do not retry at the same time. If the store said how long to wait, that time is added.
/// After a TooManyRequests, each attempt also waits for its turn at the RequestRate of all requests. The first attempt
/// waits before the budget begins, and as long at most. An interrupt ends a wait within a tenth of a second; a first
/// attempt then begins without its turn. After a second UnusableResponse there is no further attempt. If the first
/// attempt to send a part took longer than the budget, the budget begins at its end.
///
/// If there is no further attempt, a TransientException is thrown. Its detail is that of the last failure, followed by
/// the number of attempts, the time since the first one, and the reason why there is no further one. All other
/// exceptions pass at once. No lock is held during an attempt or a wait. Safe for concurrent calls.
class Retry
{
public:
    Retry(const RetryPolicy& policy, RetryClock clock, std::function<bool()> interrupted);

    /// What is retried, for messages and counters.
    struct Request
    {
        Operation operation;
        const std::string& key;
        Outage* outage = nullptr; ///< of the transfer that the request belongs to
        std::uint64_t bytes = 0;  ///< of content that it sends, or lets the store copy
        std::size_t number = 0;   ///< of the part that it stores; 0: none
    };

    /// Call a function until it does not fail with a TransientException, and return its result.
    ///
    /// @param attempt   makes one attempt
    /// @param progress  returns how many bytes the attempts have received; when this has grown since the last failure,
    ///                  the delays and the budget start again. Empty: an attempt achieves all or nothing.
    template <typename Attempt>
    auto run(const Request& request, const Attempt& attempt, const std::function<std::uint64_t()>& progress = {})
    {
        for (Attempts attempts(*this, request, progress);;)
        {
            attempts.start();
            try
            {
                if constexpr (std::is_void_v<decltype(attempt())>)
                {
                    attempt();
                    attempts.succeeded();
                    return;
                }
                else
                {
                    auto result = attempt();
                    attempts.succeeded();
                    return result;
                }
            }
            catch (const TransientException& failure)
            {
                attempts.wait(failure);
            }
        }
    }

    /// See RemoteClient::callSnapshot().
    CallSnapshot callSnapshot() const;

    /// See RemoteClient::waiting().
    RemoteClient::Waiting waiting() const;

    /// Whether the process is interrupted.
    bool isInterrupted() const { return m_interrupted && m_interrupted(); }

    /// The time by the clock that the waits use.
    std::chrono::steady_clock::time_point now() const { return m_clock.now(); }

private:
    /// The attempts of one run().
    class Attempts
    {
    public:
        Attempts(Retry& retry, const Request& request, const std::function<std::uint64_t()>& progress);
        Attempts(const Attempts&) = delete;
        Attempts& operator=(const Attempts&) = delete;
        ~Attempts();

        /// Wait for the turn of a first attempt. Retries have waited.
        /// @throws what the outage of the upload says
        void start();
        void succeeded();

        /// Wait before the next attempt, or throw if there is none.
        void wait(const TransientException& failure);

    private:
        using Time = std::chrono::steady_clock::time_point;

        bool isOutage() const;
        void sleep(const TransientException& failure, RetryClock::Duration time, Time lastBegin) const;
        [[noreturn]] void exceedBudget(const TransientException& failure) const;
        [[noreturn]] void giveUp(const TransientException& failure, const std::string& whyNoRetry) const;
        TransientException gaveUp(const TransientException& failure, const std::string& whyNoRetry) const;

        Retry& m_retry;
        const Request m_request;
        const bool m_isAbort;
        const std::function<std::uint64_t()>& m_progress;
        Time m_begin;
        Time m_attemptBegin;
        Time m_budgetBegin;
        RetryClock::Duration m_nextMaxDelay;
        std::uint64_t m_lastProgress = 0;
        unsigned m_failedInBudget = 0;
        unsigned m_failed = 0;
        unsigned m_unusable = 0;                     // attempts that failed with an UnusableResponse
        std::multiset<unsigned>::iterator m_counted; // m_failed among Retry::m_failedAttempts
    };

    const RetryPolicy m_policy;
    const RetryClock m_clock;
    const std::function<bool()> m_interrupted;
    RequestRate m_rate;

    mutable std::mutex m_mutex;               // innermost; guards everything below
    CallSnapshot m_counted;                   // attempts
    std::multiset<unsigned> m_failedAttempts; // of each run() in progress
    std::chrono::steady_clock::time_point m_quietSince;
};

} // namespace storage::clients
