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

namespace storage::clients
{

namespace
{

using cloudprovider::CloudClientSharedPtr;

/// What openStore() puts over a store, and all that programs add, over one in which every second call of a thread
/// fails. Listings have small and empty pages, on which their results must not depend.
CloudClientSharedPtr makeStack(const std::shared_ptr<MemoryClient>& store)
{
    store->setPageSize(3);
    const auto faults = std::make_shared<FaultyClient>(std::make_shared<CountingClient>(store));
    faults->setEmptyPages(2);
    faults->setHook(
        [](Operation, const std::string&)
        {
            thread_local unsigned calls = 0;
            if (calls++ % 2 == 0)
            {
                throw TransientException("Busy");
            }
        });
    const auto retrying =
        std::make_shared<RetryingClient>(faults, RetryPolicy{.firstDelay = std::chrono::milliseconds(0)});
    // With buffers for two small parts, so that callers wait, and none for large parts.
    const auto pipelined =
        std::make_shared<PipelinedUploadClient>(retrying, PipelineSettings{.transfers = 4, .memory = 250});
    return std::make_shared<CancellableClient>(
        std::make_shared<FailureRecordingClient>(std::make_shared<ReadAheadClient>(pipelined)));
}

/// Decorators over a store in memory. They must keep the contract.
class DecoratorHarness : public conformance::Harness
{
public:
    cloudprovider::CloudClient& client() override { return *m_client; }
    CloudClientSharedPtr openAnother() override { return makeStack(m_store->openAnother()); }

private:
    const std::shared_ptr<MemoryClient> m_store = std::make_shared<MemoryClient>();
    const CloudClientSharedPtr m_client = makeStack(m_store);
};

CLOUD_CLIENT_CONFORMANCE(Stack, [] { return std::make_unique<DecoratorHarness>(); });

} // namespace

} // namespace storage::clients
