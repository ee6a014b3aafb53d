#include <storage/clients/memory/MemoryClient.hpp>

#include <storage/clients/conformance/CloudClientConformance.hpp>

namespace storage::clients
{

namespace
{

class MemoryHarness : public conformance::Harness
{
public:
    explicit MemoryHarness(std::size_t pageSize = MemoryClient::defaultPageSize, unsigned emptyPages = 0)
    {
        m_client.setPageSize(pageSize);
        m_client.setEmptyPages(emptyPages);
    }

    MemoryClient& client() override { return m_client; }

private:
    MemoryClient m_client;
};

CLOUD_CLIENT_CONFORMANCE(Memory, [] { return std::make_unique<MemoryHarness>(); });

// What a listing is must not depend on how it is paged.
CLOUD_CLIENT_CONFORMANCE(MemoryWithOddPages, [] { return std::make_unique<MemoryHarness>(3, 2); });

} // namespace

} // namespace storage::clients
