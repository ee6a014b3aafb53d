#include <storage/clients/decorators/CancellableClient.hpp>
#include <storage/clients/decorators/CountingClient.hpp>
#include <storage/clients/decorators/FailureRecordingClient.hpp>
#include <storage/clients/decorators/FaultyClient.hpp>
#include <storage/clients/memory/MemoryClient.hpp>
#include <storage/clients/testing/CloudClientConformance.hpp>

#include <memory>

namespace storage::clients
{

namespace
{

using cloudprovider::CloudClientSharedPtr;

/// The decorators that programs add, over a store whose listings have small and empty pages, on which their results
/// must not depend.
CloudClientSharedPtr makeStack(const std::shared_ptr<MemoryClient>& store)
{
    store->setPageSize(3);
    const auto faults = std::make_shared<FaultyClient>(std::make_shared<CountingClient>(store));
    faults->setEmptyPages(2);
    return std::make_shared<CancellableClient>(std::make_shared<FailureRecordingClient>(faults));
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
