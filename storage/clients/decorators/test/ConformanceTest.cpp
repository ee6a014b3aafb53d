#include <storage/clients/conformance/CloudClientConformance.hpp>
#include <storage/clients/decorators/CancellableClient.hpp>
#include <storage/clients/decorators/FailureRecordingClient.hpp>
#include <storage/clients/memory/MemoryClient.hpp>

#include <memory>

namespace storage::clients
{

namespace
{

/// A decorator over a store in memory: what it does not change must stay as it is.
template <typename Decorator>
class DecoratorHarness : public conformance::Harness
{
public:
    cloudprovider::CloudClient& client() override { return m_client; }

    cloudprovider::CloudClientSharedPtr openAnother() override { return std::make_shared<Decorator>(m_store); }

private:
    const std::shared_ptr<MemoryClient> m_store = std::make_shared<MemoryClient>();
    Decorator m_client{m_store};
};

CLOUD_CLIENT_CONFORMANCE(Cancellable, [] { return std::make_unique<DecoratorHarness<CancellableClient>>(); });
CLOUD_CLIENT_CONFORMANCE(FailureRecording, [] { return std::make_unique<DecoratorHarness<FailureRecordingClient>>(); });

} // namespace

} // namespace storage::clients
