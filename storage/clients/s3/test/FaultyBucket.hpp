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

/// Waits take no time, but count.
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

/// A bucket behind a proxy that lets one kind of fault happen.
class FaultyBucket : public testing::Test
{
protected:
    explicit FaultyBucket(Fault struckWith)
        : fault(struckWith)
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
        settings.partSize = 1 << 20;                                   // fewer requests, as each of them is struck
        if (fault == Fault::StallBefore || fault == Fault::StallAfter) // on a busy machine others take a while, too
        {
            settings.timeouts.stallWindow = settings.timeouts.serverSideStallWindow = std::chrono::seconds(1);
        }
        return settings;
    }

    FaultProxy::Plan strike(std::size_t first, bool forGood) const
    {
        // An answer to HEAD has no document that says what is wrong with the asker, who is wrong again the next time.
        const bool needsDocument = fault == Fault::Denied403 || fault == Fault::Moved400 || fault == Fault::Expired400;
        const auto isTold = std::make_shared<std::atomic<bool>>(!needsDocument);
        return [=, this](const clients::test::Request& request, std::size_t number)
        {
            const bool strikes = number == first || (number > first && (forGood || !*isTold));
            *isTold = *isTold || (strikes && request.method() != boost::beast::http::verb::head);
            return strikes ? fault : Fault::None;
        };
    }

    std::optional<GatewayBucket> m_bucket;
    std::optional<S3Client> m_direct; // past the proxy
};

} // namespace storage::clients::s3::test
