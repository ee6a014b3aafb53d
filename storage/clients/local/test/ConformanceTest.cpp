#include "TestStore.hpp"

#include <storage/clients/testing/CloudClientConformance.hpp>

namespace storage::clients
{

namespace
{

class LocalHarness : public conformance::Harness
{
public:
    explicit LocalHarness(std::uint64_t maxInlineSize)
        : m_maxInlineSize(maxInlineSize)
        , m_client(m_folder.store, maxInlineSize)
    {
    }

    ~LocalHarness() override { test::checkStore(m_folder.store); }

    LocalClient& client() override { return m_client; }

    cloudprovider::CloudClientSharedPtr openAnother() override
    {
        return std::make_shared<LocalClient>(m_folder.store, m_maxInlineSize);
    }

private:
    const std::uint64_t m_maxInlineSize;
    const test::TestFolder m_folder;
    LocalClient m_client;
};

CLOUD_CLIENT_CONFORMANCE(LocalIndex, [] { return std::make_unique<LocalHarness>(LocalClient::defaultMaxInlineSize); });
CLOUD_CLIENT_CONFORMANCE(LocalFiles, [] { return std::make_unique<LocalHarness>(test::nothingInline); });

} // namespace

} // namespace storage::clients
