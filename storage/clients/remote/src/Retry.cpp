#include "Retry.hpp"

#include <storage/clients/common/KeyRules.hpp>
#include <storage/cloudprovider/CloudExceptions.hpp>
#include <storage/cloudprovider/Logger.hpp>

#include <foundation/log/Severity.hpp>

#include <fmt/format.h>

#include <algorithm>
#include <random>
#include <utility>

namespace storage::clients
{

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

void Outage::begin(std::exception_ptr failure, Time end, bool isAbort)
{
    const std::lock_guard lock(m_mutex);
    m_failure = std::move(failure);
    m_end = end;
    m_isAbortTried = isAbort;
}

void Outage::end()
{
    const std::lock_guard lock(m_mutex);
    m_failure = nullptr;
}

void Outage::setAborting(bool isAborting)
{
    const std::lock_guard lock(m_mutex);
    isAborting ? ++m_aborting : --m_aborting;
}

std::exception_ptr Outage::failure(Time now, bool isAbort) const
{
    const std::lock_guard lock(m_mutex);
    if (m_aborting > 0 && !isAbort)
    {
        return std::make_exception_ptr(cloudprovider::UnknownErrorException("Aborted", "the upload is being aborted"));
    }
    return now < m_end ? m_failure : nullptr;
}

bool Outage::mayAbort(Time now)
{
    const std::lock_guard lock(m_mutex);
    return m_failure == nullptr || now >= m_end || !std::exchange(m_isAbortTried, true);
}

Retry::Retry(const RetryPolicy& policy, RetryClock clock, std::function<bool()> interrupted)
    : m_policy(policy)
    , m_clock(std::move(clock))
    , m_interrupted(std::move(interrupted))
{
}

CallSnapshot Retry::callSnapshot() const
{
    const std::lock_guard lock(m_mutex);
    return m_counted;
}

RemoteClient::Waiting Retry::waiting() const
{
    const std::lock_guard lock(m_mutex);
    return m_failedAttempts.empty() ? RemoteClient::Waiting()
                                    : RemoteClient::Waiting{*m_failedAttempts.rbegin(), m_clock.now() - m_quietSince};
}

Retry::Attempts::Attempts(Retry& retry, const Request& request, const std::function<std::uint64_t()>& progress)
    : m_retry(retry)
    , m_request(request)
    , m_isAbort(request.operation == Operation::AbortMultipartUpload)
    , m_progress(progress)
    , m_begin(retry.m_clock.now())
    , m_attemptBegin(m_begin)
    , m_budgetBegin(m_begin)
    , m_nextMaxDelay(std::min(retry.m_policy.firstDelay, retry.m_policy.maxDelay))
{
    const std::lock_guard lock(retry.m_mutex);
    retry.m_quietSince = retry.m_failedAttempts.empty() ? m_begin : retry.m_quietSince;
    m_counted = retry.m_failedAttempts.insert(0);
}

Retry::Attempts::~Attempts()
{
    const std::lock_guard lock(m_retry.m_mutex);
    m_retry.m_failedAttempts.erase(m_counted);
    m_retry.m_quietSince = m_retry.m_clock.now();
}

void Retry::Attempts::start()
{
    if (m_failed == 0)
    {
        for (Duration left; (left = m_retry.m_rate.begin(m_retry.m_clock.now())) > Duration::zero();)
        {
            const bool hasWaited = m_retry.m_clock.now() - m_begin >= m_retry.m_policy.budget;
            if (hasWaited || m_retry.isInterrupted() || isOutage())
            {
                break;
            }
            m_retry.m_clock.sleep(std::min(left, maxSleep));
        }
        m_begin = m_budgetBegin = m_retry.m_clock.now();
    }
    m_attemptBegin = m_retry.m_clock.now();
    Outage* const outage = m_request.outage;
    const auto failure = outage == nullptr ? nullptr : outage->failure(m_attemptBegin, m_isAbort);
    if (failure && !(m_isAbort && outage->mayAbort(m_attemptBegin)))
    {
        std::rethrow_exception(failure);
    }
    const std::lock_guard lock(m_retry.m_mutex);
    ++m_retry.m_counted[m_request.operation].calls;
}

void Retry::Attempts::succeeded()
{
    if (m_request.outage != nullptr)
    {
        m_request.outage->end();
    }
    const std::lock_guard lock(m_retry.m_mutex);
    auto& counted = m_retry.m_counted[m_request.operation];
    counted.bytes += m_request.bytes + (m_progress ? m_progress() : 0);
    if (m_request.number > 0)
    {
        counted.parts.insert(m_request.number - 1);
    }
}

void Retry::Attempts::wait(const TransientException& failure)
{
    const RetryPolicy& policy = m_retry.m_policy;
    const auto now = m_retry.m_clock.now();
    {
        const std::lock_guard lock(m_retry.m_mutex);
        auto counted = m_retry.m_failedAttempts.extract(m_counted); // keeps its memory
        counted.value() = ++m_failed;
        m_counted = m_retry.m_failedAttempts.insert(std::move(counted));
        m_retry.m_quietSince = now;
    }
    if (dynamic_cast<const TooManyRequests*>(&failure) != nullptr)
    {
        m_retry.m_rate.refused(m_attemptBegin, now);
    }
    // A large part takes long on a slow line. After a single failure its bytes should not wait for the completion.
    if (m_failed == 1 && m_request.operation == Operation::UploadPart && now - m_budgetBegin > policy.budget)
    {
        m_budgetBegin = now;
    }
    ++m_failedInBudget;
    if (const std::uint64_t reached = m_progress ? m_progress() : 0; reached > m_lastProgress)
    {
        m_lastProgress = reached;
        m_budgetBegin = now;
        m_failedInBudget = 0;
        m_nextMaxDelay = std::min(policy.firstDelay, policy.maxDelay);
    }
    m_unusable += dynamic_cast<const UnusableResponse*>(&failure) != nullptr ? 1 : 0;
    if (m_unusable > 1)
    {
        giveUp(failure, "the store has responded in this way before");
    }
    const Duration jitter = m_retry.m_clock.jitter(m_nextMaxDelay);
    const Duration maxDelay = policy.maxDelay;
    m_nextMaxDelay = m_nextMaxDelay < maxDelay / 2 ? m_nextMaxDelay * 2 : maxDelay;

    // Compare milliseconds first, since a store may ask for more than a Duration can hold.
    const auto asked = std::max(failure.retryAfter().value_or(std::chrono::milliseconds(0)), {});
    // One slow failure does not show that the next attempt is as slow.
    const Duration expected = m_failedInBudget > 1 ? now - m_attemptBegin : Duration(0);
    const Duration left = policy.budget - (now - m_budgetBegin) - expected;
    if (asked > std::chrono::floor<std::chrono::milliseconds>(left) || jitter > left - asked)
    {
        exceedBudget(failure);
    }
    const Duration time = asked + jitter;

    // Progress rather than a warning: nothing has failed for the caller yet, and a busy store causes many of these.
    if (auto& logger = cloudprovider::getLogger(); logger.isEnabled(foundation::log::severity::progress))
    {
        logger.write(foundation::log::severity::progress,
            fmt::format("{} of {}: attempt {} failed, retrying in {:.3f} s: {}", name(m_request.operation),
                quoted(m_request.key), m_failed, seconds(time), reason(failure)));
    }
    sleep(failure, time, now + left);
}

bool Retry::Attempts::isOutage() const
{
    return m_request.outage != nullptr && m_request.outage->failure(m_retry.m_clock.now(), m_isAbort);
}

/// Wait for some time, and then for the turn of the next attempt, which may not begin later than `lastBegin`.
void Retry::Attempts::sleep(const TransientException& failure, Duration time, Time lastBegin) const
{
    const auto end = m_retry.m_clock.now() + time;
    for (;;)
    {
        if (m_retry.isInterrupted())
        {
            giveUp(failure, "interrupted");
        }
        if (isOutage())
        {
            throw gaveUp(failure, "another request of this upload gave up");
        }
        const auto now = m_retry.m_clock.now();
        Duration left = end - now;
        if (left <= Duration::zero())
        {
            left = m_retry.m_rate.begin(now);
            if (left <= Duration::zero())
            {
                return;
            }
            if (left > lastBegin - now)
            {
                exceedBudget(failure);
            }
        }
        m_retry.m_clock.sleep(std::min(left, maxSleep));
    }
}

void Retry::Attempts::exceedBudget(const TransientException& failure) const
{
    giveUp(failure, fmt::format("another attempt would exceed the limit of {} s", seconds(m_retry.m_policy.budget)));
}

/// Throw the last failure, and let the other requests of the upload fail with it.
void Retry::Attempts::giveUp(const TransientException& failure, const std::string& whyNoRetry) const
{
    const TransientException last = gaveUp(failure, whyNoRetry);
    if (m_request.outage != nullptr)
    {
        m_request.outage->begin(
            std::make_exception_ptr(last), m_retry.m_clock.now() + m_retry.m_policy.budget, m_isAbort);
    }
    throw last;
}

TransientException Retry::Attempts::gaveUp(const TransientException& failure, const std::string& whyNoRetry) const
{
    return TransientException(failure.what(),
        fmt::format("{}; gave up after attempt {}, {:.1f} s after the first: {}", reason(failure), m_failed,
            seconds(m_retry.m_clock.now() - m_begin), whyNoRetry),
        failure.retryAfter());
}

} // namespace storage::clients
