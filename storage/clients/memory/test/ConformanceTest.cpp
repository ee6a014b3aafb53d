#include <storage/clients/memory/MemoryClient.hpp>

#include <storage/clients/testing/CloudClientConformance.hpp>

namespace storage::clients
{

namespace
{

class MemoryHarness : public conformance::Harness
{
public:
    MemoryClient& client() override { return m_client; }
    cloudprovider::CloudClientSharedPtr openAnother() override { return m_client.openAnother(); }

private:
    MemoryClient m_client;
};

CLOUD_CLIENT_CONFORMANCE(Memory, [] { return std::make_unique<MemoryHarness>(); });

} // namespace

} // namespace storage::clients
