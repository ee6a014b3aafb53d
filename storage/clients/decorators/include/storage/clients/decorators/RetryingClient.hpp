#pragma once

#include <storage/clients/decorators/InterceptingClient.hpp>

#include <chrono>
#include <cstdint>
#include <exception>
#include <functional>
#include <iosfwd>
#include <map>
#include <memory>
#include <mutex>
#include <set>
#include <string>
#include <thread>
#include <vector>

namespace storage::clients
{

class TransientException;

/// How long a RetryingClient retries. No value may be negative.
struct RetryPolicy
{
    /// Maximum of the first wait; doubled for each wait that follows.
    std::chrono::milliseconds firstDelay{100};
    /// Limit of the doubling.
    std::chrono::milliseconds maxDelay = std::chrono::seconds(20);
    /// No attempt begins later than this after the call began, or after the last attempt that made progress. Attempts
    /// after the first retry begin only if they would end by then, provided that they take as long as the last one.
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

/// Retry calls that fail with a TransientException, with exponential backoff and jitter.
///
/// Waits: the k-th wait, k = 0 first, is uniformly random in [0, min(maxDelay, firstDelay * 2^k)], so that clients
/// which failed at the same time do not retry at the same time. If the store said how long to wait, that time is added.
/// An interrupt ends a wait within a tenth of a second.
///
/// Budget: a wait for an attempt that may not begin any more does not start; see RetryPolicy. The first retry may end
/// beyond the budget, so that a slow call is not given up after one failure. An attempt in progress is not ended: the
/// inner client limits how long one takes. After an attempt that failed but made progress, as its TransientException
/// says, the delays and the budget start again.
///
/// If there is no further attempt, the call throws a TransientException. Its detail is that of the last failure,
/// followed by the number of attempts, the time since the first one, and the reason why there is no further one. All
/// other exceptions are passed on at once.
///
/// Uploads: a call of an upload that has used up its budget ends the retries of the whole upload, so that a store that
/// went away is not waited for again with each part. For the time of another budget, other calls of this upload do not
/// wait any more. New ones fail at once with the same exception, except the first abortMultipartUpload(), which makes
/// one attempt. This ends early when a call of the upload succeeds. An abort that fails after an interrupt counts, too:
/// the next one fails at once.
///
/// Content streams: before each retry, a seekable stream is rewound to its position at the start of the call. The retry
/// reads the same bytes again, or overwrites what the failed attempt wrote. With a stream that is not seekable, the
/// call is retried only while no byte has been read from it or written to it. Do not pass a file stream opened for
/// appending to getObjectRange(): it writes at the end, wherever it is rewound to. If a retry of getObjectRange() for
/// the whole object delivers fewer bytes than a failed attempt has already written, the call fails, since the surplus
/// cannot be removed.
///
/// Threads: any thread may call at any time. A call waits and retries on its caller's thread; no lock is held
/// meanwhile. The number of concurrent calls is not limited here. Destroy the client only when no call is in progress.
class RetryingClient : public InterceptingClient
{
public:
    /// @param interrupted  whether the process is interrupted: then no call is retried. Called on the thread that
    ///                     waits; must be safe to call from any thread. Empty: never.
    explicit RetryingClient(std::shared_ptr<cloudprovider::CloudClient> inner, RetryPolicy policy = {},
        RetryClock clock = {}, std::function<bool()> interrupted = {});

    std::vector<cloudprovider::ObjectEntry> listObjects(
        const std::string& prefix, std::string& continuationToken, const cloudprovider::ListOptions& options) override;
    void getObjectRange(const std::string& key, std::ostream& out, std::uint64_t first, std::uint64_t last) override;
    void putObject(const std::string& key, std::istream& content, std::uint64_t size) override;
    std::string uploadPart(const std::string& key, const std::string& uploadId, const cloudprovider::PartInfo& part,
        std::istream& content) override;

    /// What the calls in progress wait for.
    struct Waiting
    {
        unsigned failedAttempts = 0;      ///< of the call that has failed most often
        RetryClock::Duration quietTime{}; ///< since an attempt of any call has ended, or the only calls have begun
    };

    /// For a host that shows why nothing happens. All zero: no call is in progress. Any thread may call this; it does
    /// not block.
    Waiting waiting() const;

protected:
    /// Retry the call, but not if it uses a content stream: such an operation overrides its function and rewinds.
    void around(const Call& call, const std::function<void()>& proceed) override;

private:
    struct Attempts;
    struct UploadFailure
    {
        std::chrono::steady_clock::time_point time;
        std::exception_ptr failure;
        bool isAbortTried; // since then
    };

    /// @param call    complete, as InterceptingClient describes it
    /// @param rewind  prepares a further attempt; returns false if that is impossible
    void retry(const Call& call, const std::function<void()>& proceed, const std::function<bool()>& rewind);

    RetryClock::Duration firstMaxDelay() const;
    void waitForNext(Attempts& attempts, const TransientException& failure);
    bool sleep(RetryClock::Duration time, const Call& call) const;
    std::exception_ptr uploadFailure(const Call& call) const;
    bool mayAbort(const Call& call);
    void recordUploadFailure(const Call& call, const TransientException& failure);
    TransientException gaveUp(
        const Attempts& attempts, const TransientException& failure, const std::string& whyNoRetry) const;

    bool isInterrupted() const { return m_interrupted && m_interrupted(); }

    const RetryPolicy m_policy;
    const RetryClock m_clock;
    const std::function<bool()> m_interrupted;

    mutable std::mutex m_mutex; // taken alone
    // guarded by m_mutex
    std::multiset<unsigned> m_failedAttempts; // of each call in progress
    std::chrono::steady_clock::time_point m_quietSince;
    std::map<std::string, UploadFailure> m_uploadFailures; // by upload id; uploads whose budget is used up
};

} // namespace storage::clients
