#include "TestStore.hpp"

#include <storage/clients/conformance/CloudClientConformance.hpp>

namespace storage::clients
{

namespace
{

class LocalHarness : public conformance::Harness
{
public:
    explicit LocalHarness(std::uint64_t largestInIndex)
        : m_largestInIndex(largestInIndex)
        , m_client(m_folder.store(), largestInIndex)
    {
    }

    ~LocalHarness() override { test::checkStore(m_folder.store()); }

    LocalClient& client() override { return m_client; }

    cloudprovider::CloudClientSharedPtr openAnother() override
    {
        return std::make_shared<LocalClient>(m_folder.store(), m_largestInIndex);
    }

private:
    const std::uint64_t m_largestInIndex;
    const test::TestFolder m_folder;
    LocalClient m_client;
};

CLOUD_CLIENT_CONFORMANCE(LocalIndex, [] { return std::make_unique<LocalHarness>(LocalClient::defaultLargestInIndex); });
CLOUD_CLIENT_CONFORMANCE(LocalFiles, [] { return std::make_unique<LocalHarness>(test::everythingInFiles); });

} // namespace

} // namespace storage::clients
