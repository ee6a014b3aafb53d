#include <storage/clients/common/TransientException.hpp>
#include <storage/clients/decorators/CancellableClient.hpp>
#include <storage/clients/decorators/CountingClient.hpp>
#include <storage/clients/decorators/FailureRecordingClient.hpp>
#include <storage/clients/decorators/FaultyClient.hpp>
#include <storage/clients/decorators/PipelinedUploadClient.hpp>
#include <storage/clients/decorators/ReadAheadClient.hpp>
#include <storage/clients/decorators/RetryingClient.hpp>
#include <storage/clients/memory/MemoryClient.hpp>
#include <storage/clients/testing/CloudClientConformance.hpp>

#include <chrono>
#include <memory>
#include <utility>

namespace storage::clients
{

namespace
{

using cloudprovider::CloudClient;

/// A decorator over a store in memory. It must keep the contract.
template <typename Decorator>
class DecoratorHarness : public conformance::Harness
{
public:
    CloudClient& client() override { return m_client; }

    cloudprovider::CloudClientSharedPtr openAnother() override { return std::make_shared<Decorator>(m_store); }

private:
    const std::shared_ptr<MemoryClient> m_store = std::make_shared<MemoryClient>();
    Decorator m_client{m_store};
};

/// With buffers for two small parts, so that callers wait, and none for large parts.
template <std::size_t transfers>
class Pipelined : public PipelinedUploadClient
{
public:
    explicit Pipelined(std::shared_ptr<CloudClient> inner)
        : PipelinedUploadClient(std::move(inner), {.transfers = transfers, .memory = 250})
    {
    }
};

/// Results of listings must not depend on the pages.
class OddPages : public FaultyClient
{
public:
    explicit OddPages(const std::shared_ptr<MemoryClient>& inner)
        : FaultyClient(inner)
    {
        inner->setPageSize(3);
        setEmptyPages(2);
    }
};

/// Retries over a store in which every second call of a thread fails.
class Unreliable : public RetryingClient
{
public:
    explicit Unreliable(std::shared_ptr<CloudClient> inner)
        : RetryingClient(faulty(std::move(inner)), {.firstDelay = std::chrono::milliseconds(0)})
    {
    }

private:
    static std::shared_ptr<CloudClient> faulty(std::shared_ptr<CloudClient> inner)
    {
        const auto faults = std::make_shared<FaultyClient>(std::move(inner));
        faults->setHook(
            [](Operation, const std::string&)
            {
                thread_local unsigned calls = 0;
                calls++ % 2 == 0 ? throw TransientException("Busy") : void();
            });
        return faults;
    }
};

CLOUD_CLIENT_CONFORMANCE(Retrying, [] { return std::make_unique<DecoratorHarness<Unreliable>>(); });
CLOUD_CLIENT_CONFORMANCE(Cancellable, [] { return std::make_unique<DecoratorHarness<CancellableClient>>(); });
CLOUD_CLIENT_CONFORMANCE(FailureRecording, [] { return std::make_unique<DecoratorHarness<FailureRecordingClient>>(); });
CLOUD_CLIENT_CONFORMANCE(Counting, [] { return std::make_unique<DecoratorHarness<CountingClient>>(); });
CLOUD_CLIENT_CONFORMANCE(FaultyWithOddPages, [] { return std::make_unique<DecoratorHarness<OddPages>>(); });
CLOUD_CLIENT_CONFORMANCE(ReadAhead, [] { return std::make_unique<DecoratorHarness<ReadAheadClient>>(); });
CLOUD_CLIENT_CONFORMANCE(PipelinedUpload, [] { return std::make_unique<DecoratorHarness<Pipelined<4>>>(); });
CLOUD_CLIENT_CONFORMANCE(SingleUpload, [] { return std::make_unique<DecoratorHarness<Pipelined<1>>>(); });

} // namespace

} // namespace storage::clients
