#include "RepeatableStream.hpp"

#include <storage/clients/common/KeyRules.hpp>
#include <storage/clients/common/TransientException.hpp>
#include <storage/clients/decorators/CancellableClient.hpp>
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

constexpr Duration longestNap = std::chrono::milliseconds(100); // what an interrupt may have to wait for

double seconds(Duration time)
{
    return std::chrono::duration<double>(time).count();
}

std::string reason(const TransientException& failure)
{
    return failure.detail().value_or(failure.what());
}

} // namespace

Duration uniformJitter(Duration most)
{
    // No engine is kept: processes forked from one another would draw the same numbers, and failures are rare.
    std::random_device random;
    return Duration(std::uniform_int_distribution<Duration::rep>(0, most.count())(random));
}

/// What one call of the interface has been through.
struct RetryingClient::Tries
{
    const Operation operation;
    const std::string& key;
    const std::chrono::steady_clock::time_point begin;
    std::chrono::steady_clock::time_point budgetBegin;
    Duration nextBound; // most that the next wait takes
    unsigned failed = 0;
};

RetryingClient::RetryingClient(std::shared_ptr<CloudClient> inner, RetryPolicy policy, RetryClock clock)
    : ForwardingClient(std::move(inner))
    , m_policy(policy)
    , m_clock(std::move(clock))
{
}

template <typename Call>
auto RetryingClient::retrying(Operation operation, const std::string& key, Call call) const
{
    return retrying(operation, key, call, [] { return true; });
}

template <typename Call, typename Rewind>
auto RetryingClient::retrying(Operation operation, const std::string& key, Call call, Rewind rewind) const
{
    const auto begin = m_clock.now();
    Tries tries{operation, key, begin, begin, firstBound()};
    for (;;)
    {
        try
        {
            return call();
        }
        catch (const TransientException& failure)
        {
            ++tries.failed;
            if (!rewind())
            {
                giveUp(tries, failure, "the content stream cannot be rewound");
            }
            waitForNext(tries, failure);
        }
    }
}

Duration RetryingClient::firstBound() const
{
    return std::min(m_policy.firstDelay, m_policy.maxDelay);
}

void RetryingClient::waitForNext(Tries& tries, const TransientException& failure) const
{
    if (failure.madeProgress())
    {
        tries.budgetBegin = m_clock.now();
        tries.nextBound = firstBound();
    }
    const Duration jitter = m_clock.jitter(tries.nextBound);
    const Duration maxDelay = m_policy.maxDelay;
    tries.nextBound = tries.nextBound < maxDelay / 2 ? tries.nextBound * 2 : maxDelay;

    // Compared in milliseconds first, since a store may ask for more than a Duration can hold.
    const auto asked = std::max(failure.retryAfter().value_or(std::chrono::milliseconds(0)), {});
    const Duration left = m_policy.budget - (m_clock.now() - tries.budgetBegin);
    if (asked > std::chrono::floor<std::chrono::milliseconds>(left) || jitter > left - asked)
    {
        giveUp(tries, failure, fmt::format("another wait would exceed the limit of {} s", seconds(m_policy.budget)));
    }
    const Duration time = asked + jitter;

    // A milestone rather than a warning: it is no fault yet, and a busy store makes many of them.
    if (auto& logger = getLogger(); logger.isEnabled(foundation::log::severity::progress))
    {
        logger.write(foundation::log::severity::progress,
            fmt::format("{} of {}: try {} failed, the next is in {:.3f} s: {}", name(tries.operation),
                quoted(tries.key), tries.failed, seconds(time), reason(failure)));
    }
    if (!sleep(time))
    {
        giveUp(tries, failure, "interrupted");
    }
}

/// @return false: everything was cancelled
bool RetryingClient::sleep(Duration time) const
{
    const auto end = m_clock.now() + time;
    for (Duration left = time; left > Duration::zero() && !CancellableClient::everythingCancelled();
         left = end - m_clock.now())
    {
        m_clock.sleep(std::min(left, longestNap));
    }
    return !CancellableClient::everythingCancelled();
}

void RetryingClient::giveUp(const Tries& tries, const TransientException& failure, const std::string& whyNoMore) const
{
    throw TransientException(failure.what(),
        fmt::format("{}; given up after try {}, {:.1f} s from the first: {}", reason(failure), tries.failed,
            seconds(m_clock.now() - tries.begin), whyNoMore),
        failure.retryAfter());
}

ObjectInfo RetryingClient::getObjectInfo(const std::string& key)
{
    return retrying(Operation::GetObjectInfo, key, [&] { return ForwardingClient::getObjectInfo(key); });
}

void RetryingClient::validateObjectName(const std::string& name)
{
    retrying(Operation::ValidateObjectName, name, [&] { ForwardingClient::validateObjectName(name); });
}

std::vector<ObjectEntry> RetryingClient::listObjects(
    const std::string& prefix, std::string& continuationToken, const ListOptions& options)
{
    return retrying(Operation::ListObjects, prefix,
        [&]
        {
            std::string token = continuationToken; // a failed try may have changed its own
            auto page = ForwardingClient::listObjects(prefix, token, options);
            continuationToken = std::move(token);
            return page;
        });
}

void RetryingClient::deleteObject(const std::string& key)
{
    retrying(Operation::DeleteObject, key, [&] { ForwardingClient::deleteObject(key); });
}

void RetryingClient::getObjectRange(const std::string& key, std::ostream& out, std::uint64_t first, std::uint64_t last)
{
    RepeatableStream body(out);
    retrying(
        Operation::GetObjectRange, key, [&] { ForwardingClient::getObjectRange(key, body.get(), first, last); },
        [&] { return body.rewind(); });
    if (body.hasSurplus())
    {
        throw UnknownErrorException("Object changed while it was read",
            fmt::format("reading {}: it became shorter after a try that failed had written more", quoted(key)));
    }
}

void RetryingClient::putObject(const std::string& key, std::istream& content, std::uint64_t size)
{
    RepeatableStream body(content);
    retrying(
        Operation::PutObject, key, [&] { ForwardingClient::putObject(key, body.get(), size); },
        [&] { return body.rewind(); });
}

std::vector<PartInfo> RetryingClient::getObjectParts(const std::string& key)
{
    return retrying(Operation::GetObjectParts, key, [&] { return ForwardingClient::getObjectParts(key); });
}

std::string RetryingClient::createMultipartUpload(const std::string& key, const std::string& tag)
{
    return retrying(
        Operation::CreateMultipartUpload, key, [&] { return ForwardingClient::createMultipartUpload(key, tag); });
}

std::string RetryingClient::uploadPart(
    const std::string& key, const std::string& uploadId, const PartInfo& part, std::istream& content)
{
    RepeatableStream body(content);
    return retrying(
        Operation::UploadPart, key, [&] { return ForwardingClient::uploadPart(key, uploadId, part, body.get()); },
        [&] { return body.rewind(); });
}

std::string RetryingClient::copyPart(const std::string& key, const std::string& uploadId, const PartInfo& part)
{
    return retrying(Operation::CopyPart, key, [&] { return ForwardingClient::copyPart(key, uploadId, part); });
}

void RetryingClient::abortMultipartUpload(const std::string& key, const std::string& uploadId)
{
    retrying(Operation::AbortMultipartUpload, key, [&] { ForwardingClient::abortMultipartUpload(key, uploadId); });
}

void RetryingClient::completeMultipartUpload(
    const std::string& key, const std::string& uploadId, const std::vector<PartInfo>& parts)
{
    retrying(Operation::CompleteMultipartUpload, key,
        [&] { ForwardingClient::completeMultipartUpload(key, uploadId, parts); });
}

} // namespace storage::clients
