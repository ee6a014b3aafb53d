#include "RewindableStream.hpp"

#include <storage/clients/common/KeyRules.hpp>
#include <storage/clients/common/TransientException.hpp>
#include <storage/clients/decorators/RetryingClient.hpp>

#include <storage/cloudprovider/Logger.hpp>

#include <foundation/log/Severity.hpp>

#include <fmt/format.h>

#include <algorithm>
#include <random>
#include <string_view>
#include <utility>

namespace storage::clients
{

using namespace storage::cloudprovider;

namespace
{

using Duration = RetryClock::Duration;

constexpr Duration maxSleep = std::chrono::milliseconds(100); // maximum time until an interrupt is noticed

double seconds(Duration time)
{
    return std::chrono::duration<double>(time).count();
}

std::string reason(const TransientException& failure)
{
    return failure.detail().value_or(failure.what());
}

} // namespace

Duration uniformJitter(Duration max)
{
    // No engine is kept: forked processes would draw the same numbers. Failures are rare, so the cost does not matter.
    std::random_device random;
    return Duration(std::uniform_int_distribution<Duration::rep>(0, max.count())(random));
}

/// The failed attempts of one call in progress.
struct RetryingClient::Attempts
{
    Attempts(RetryingClient& owner, const Call& made)
        : client(owner)
        , call(made)
    {
        const std::lock_guard lock(client.m_mutex);
        client.m_quietSince = client.m_failedAttempts.empty() ? begin : client.m_quietSince;
        counted = client.m_failedAttempts.insert(0);
    }
    Attempts(const Attempts&) = delete;
    Attempts& operator=(const Attempts&) = delete;

    ~Attempts()
    {
        const std::lock_guard lock(client.m_mutex);
        client.m_failedAttempts.erase(counted);
        client.m_quietSince = client.m_clock.now();
    }

    void countFailure()
    {
        const std::lock_guard lock(client.m_mutex);
        client.m_failedAttempts.erase(counted);
        counted = client.m_failedAttempts.insert(++failed);
        client.m_quietSince = client.m_clock.now();
    }

    RetryingClient& client;
    const Call& call;
    const std::chrono::steady_clock::time_point begin = client.m_clock.now();
    std::chrono::steady_clock::time_point attemptBegin = begin;
    std::chrono::steady_clock::time_point budgetBegin = begin;
    unsigned failedInBudget = 0;
    Duration nextMaxDelay = client.firstMaxDelay(); // maximum of the next wait
    unsigned failed = 0;
    std::multiset<unsigned>::iterator counted; // `failed` in m_failedAttempts
};

RetryingClient::RetryingClient(
    std::shared_ptr<CloudClient> inner, RetryPolicy policy, RetryClock clock, std::function<bool()> interrupted)
    : InterceptingClient(std::move(inner))
    , m_policy(policy)
    , m_clock(std::move(clock))
    , m_interrupted(std::move(interrupted))
{
}

void RetryingClient::around(const Call& call, const std::function<void()>& proceed)
{
    // The operations with a content stream rewind it themselves, and do not pass through here.
    retry(call, proceed, [&] { return !usesContentStream(call.operation); });
}

void RetryingClient::retry(const Call& call, const std::function<void()>& proceed, const std::function<bool()>& rewind)
{
    if (const auto failure = uploadFailure(call); failure && !mayAbort(call))
    {
        std::rethrow_exception(failure);
    }
    Attempts attempts(*this, call);
    for (;;)
    {
        attempts.attemptBegin = m_clock.now();
        try
        {
            proceed();
            if (call.uploadId != nullptr)
            {
                const std::lock_guard lock(m_mutex);
                m_uploadFailures.erase(*call.uploadId);
            }
            return;
        }
        catch (const TransientException& failure)
        {
            attempts.countFailure();
            if (!rewind())
            {
                throw gaveUp(attempts, failure, "the content stream cannot be rewound");
            }
            waitForNext(attempts, failure);
        }
    }
}

RetryingClient::Waiting RetryingClient::waiting() const
{
    const std::lock_guard lock(m_mutex);
    return m_failedAttempts.empty() ? Waiting() : Waiting{*m_failedAttempts.rbegin(), m_clock.now() - m_quietSince};
}

Duration RetryingClient::firstMaxDelay() const
{
    return std::min(m_policy.firstDelay, m_policy.maxDelay);
}

void RetryingClient::waitForNext(Attempts& attempts, const TransientException& failure)
{
    const auto now = m_clock.now();
    ++attempts.failedInBudget;
    if (failure.madeProgress())
    {
        attempts.budgetBegin = now;
        attempts.failedInBudget = 0;
        attempts.nextMaxDelay = firstMaxDelay();
    }
    const Duration jitter = m_clock.jitter(attempts.nextMaxDelay);
    const Duration maxDelay = m_policy.maxDelay;
    attempts.nextMaxDelay = attempts.nextMaxDelay < maxDelay / 2 ? attempts.nextMaxDelay * 2 : maxDelay;

    // Compare milliseconds first, since a store may ask for more than a Duration can hold.
    const auto asked = std::max(failure.retryAfter().value_or(std::chrono::milliseconds(0)), {});
    // One slow failure does not show that the next attempt is as slow.
    const Duration expected = attempts.failedInBudget > 1 ? now - attempts.attemptBegin : Duration(0);
    const Duration left = m_policy.budget - (now - attempts.budgetBegin) - expected;
    if (asked > std::chrono::floor<std::chrono::milliseconds>(left) || jitter > left - asked)
    {
        const TransientException last = gaveUp(
            attempts, failure, fmt::format("another attempt would exceed the limit of {} s", seconds(m_policy.budget)));
        recordUploadFailure(attempts.call, last);
        throw last;
    }
    const Duration time = asked + jitter;

    // Progress rather than a warning: nothing has failed for the caller yet, and a busy store causes many of these.
    if (auto& logger = getLogger(); logger.isEnabled(foundation::log::severity::progress))
    {
        logger.write(foundation::log::severity::progress,
            fmt::format("{} of {}: attempt {} failed, retrying in {:.3f} s: {}", name(attempts.call.operation),
                quoted(attempts.call.key), attempts.failed, seconds(time), reason(failure)));
    }
    if (!sleep(time, attempts.call))
    {
        const TransientException last =
            gaveUp(attempts, failure, isInterrupted() ? "interrupted" : "another call of this upload gave up");
        if (attempts.call.operation == Operation::AbortMultipartUpload)
        {
            recordUploadFailure(attempts.call, last); // whoever cleans up next would wait as long
        }
        throw last;
    }
}

/// @return false: interrupted, or the call's upload has failed
bool RetryingClient::sleep(Duration time, const Call& call) const
{
    const auto mayWait = [&] { return !isInterrupted() && !uploadFailure(call); };
    const auto end = m_clock.now() + time;
    for (Duration left = time; left > Duration::zero() && mayWait(); left = end - m_clock.now())
    {
        m_clock.sleep(std::min(left, maxSleep));
    }
    return mayWait();
}

/// The failure of a call of the same upload that has used up the budget; null: there was none.
std::exception_ptr RetryingClient::uploadFailure(const Call& call) const
{
    if (call.uploadId == nullptr)
    {
        return nullptr;
    }
    const std::lock_guard lock(m_mutex);
    const auto found = m_uploadFailures.find(*call.uploadId);
    const bool isValid = found != m_uploadFailures.end() && m_clock.now() - found->second.time < m_policy.budget;
    return isValid ? found->second.failure : nullptr;
}

/// Whether the call is the first to abort its upload since the upload has failed.
bool RetryingClient::mayAbort(const Call& call)
{
    const std::lock_guard lock(m_mutex);
    const auto found = m_uploadFailures.find(*call.uploadId);
    return call.operation == Operation::AbortMultipartUpload &&
           (found == m_uploadFailures.end() || !std::exchange(found->second.isAbortTried, true));
}

void RetryingClient::recordUploadFailure(const Call& call, const TransientException& failure)
{
    if (call.uploadId != nullptr)
    {
        const auto now = m_clock.now();
        const std::lock_guard lock(m_mutex);
        std::erase_if(m_uploadFailures, [&](const auto& entry) { return now - entry.second.time >= m_policy.budget; });
        m_uploadFailures.insert_or_assign(*call.uploadId,
            UploadFailure{now, std::make_exception_ptr(failure), call.operation == Operation::AbortMultipartUpload});
    }
}

TransientException RetryingClient::gaveUp(
    const Attempts& attempts, const TransientException& failure, const std::string& whyNoRetry) const
{
    return TransientException(failure.what(),
        fmt::format("{}; gave up after attempt {}, {:.1f} s after the first: {}", reason(failure), attempts.failed,
            seconds(m_clock.now() - attempts.begin), whyNoRetry),
        failure.retryAfter());
}

std::vector<ObjectEntry> RetryingClient::listObjects(
    const std::string& prefix, std::string& continuationToken, const ListOptions& options)
{
    std::vector<ObjectEntry> page;
    std::string token;
    around({Operation::ListObjects, prefix},
        [&]
        {
            token = continuationToken; // a failed attempt may have changed its copy
            page = inner().listObjects(prefix, token, options);
        });
    continuationToken = std::move(token);
    return page;
}

void RetryingClient::getObjectRange(const std::string& key, std::ostream& out, std::uint64_t first, std::uint64_t last)
{
    RewindableStream body(out);
    retry(
        {Operation::GetObjectRange, key}, [&] { inner().getObjectRange(key, body.get(), first, last); },
        [&] { return body.rewind(); });
    if (body.hasSurplus())
    {
        throw UnknownErrorException("Object changed while it was read",
            fmt::format(
                "reading {}: the object became shorter, and a failed attempt had already written more", quoted(key)));
    }
}

void RetryingClient::putObject(const std::string& key, std::istream& content, std::uint64_t size)
{
    RewindableStream body(content);
    retry(
        {Operation::PutObject, key, nullptr, size}, [&] { inner().putObject(key, body.get(), size); },
        [&] { return body.rewind(); });
}

std::string RetryingClient::uploadPart(
    const std::string& key, const std::string& uploadId, const PartInfo& part, std::istream& content)
{
    RewindableStream body(content);
    std::string tag;
    retry(
        {Operation::UploadPart, key, &part, part.Size, &uploadId},
        [&] { tag = inner().uploadPart(key, uploadId, part, body.get()); }, [&] { return body.rewind(); });
    return tag;
}

} // namespace storage::clients
