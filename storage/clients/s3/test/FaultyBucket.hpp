#pragma once

#include "FaultProxy.hpp"
#include "Gateway.hpp"

#include <storage/clients/decorators/RetryingClient.hpp>
#include <storage/clients/s3/S3Client.hpp>

#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <cstddef>
#include <memory>
#include <optional>
#include <sstream>
#include <string>

namespace storage::clients::s3::test
{

using clients::test::Fault;
using clients::test::FaultProxy;
using Contents = std::optional<std::string>; // nothing: no object

constexpr std::chrono::milliseconds shortBudget(500);

/// A clock on which delays take no real time, but count.
class VirtualTime
{
public:
    RetryClock clock()
    {
        return {[this] { return std::chrono::steady_clock::now() + slept(); },
            [this](RetryClock::Duration time) { m_slept += time.count(); }, uniformJitter};
    }
    RetryClock::Duration slept() const { return RetryClock::Duration(m_slept); }

private:
    std::atomic<RetryClock::Duration::rep> m_slept = 0;
};

/// A bucket, reached through a proxy that injects one kind of fault.
class FaultyBucket : public testing::Test
{
protected:
    explicit FaultyBucket(Fault injected)
        : fault(injected)
    {
    }

    void SetUp() override
    {
        REQUIRE_GATEWAY();
        m_bucket.emplace();
        m_direct.emplace(m_bucket->settings());
    }

    const Fault fault;

    Contents stored(const std::string& key)
    {
        if (!m_direct->getObjectInfo(key).exists)
        {
            return std::nullopt;
        }
        std::ostringstream out;
        m_direct->getObjectRange(key, out, 0, 0);
        return out.str();
    }

    void store(const std::string& key, const std::string& bytes)
    {
        std::istringstream content(bytes);
        m_direct->putObject(key, content, bytes.size());
    }

    S3Settings settingsFor(const FaultProxy& proxy) const
    {
        S3Settings settings = m_bucket->settingsThrough(proxy.url());
        settings.partSize = 1 << 20; // fewer requests, since each of them gets the fault once
        return settings;
    }

    /// @param isPersistent  every request from the first one on, not that one alone
    FaultProxy::Plan injectAt(std::size_t first, bool isPersistent) const
    {
        // A HEAD response has no document with the reason, so that the client asks again with GET: that fails, too.
        const bool needsDocument = fault == Fault::Denied403 || fault == Fault::Expired400;
        const auto isReported = std::make_shared<std::atomic<bool>>(!needsDocument);
        return [=, this](const clients::test::Request& request, std::size_t number)
        {
            const bool fails = number == first || (number > first && (isPersistent || !*isReported));
            *isReported = *isReported || (fails && request.method() != boost::beast::http::verb::head);
            return fails ? fault : Fault::None;
        };
    }

    std::optional<GatewayBucket> m_bucket;
    std::optional<S3Client> m_direct; // past the proxy
};

} // namespace storage::clients::s3::test
