#include "TestStore.hpp"

#include <storage/clients/testing/CloudClientConformance.hpp>

namespace storage::clients
{

namespace
{

class LocalHarness : public conformance::Harness
{
public:
    explicit LocalHarness(const LocalSettings& settings)
        : m_settings(settings)
        , m_client(m_folder.store, settings)
    {
    }

    ~LocalHarness() override { test::checkStore(m_folder.store); }

    LocalClient& client() override { return m_client; }

    cloudprovider::CloudClientSharedPtr openAnother() override
    {
        return std::make_shared<LocalClient>(m_folder.store, m_settings);
    }

    cloudprovider::CloudClientSharedPtr openReadOnly() override
    {
        test::runSql(m_folder.store,
            "CREATE TRIGGER full BEFORE INSERT ON uploads BEGIN SELECT RAISE(ABORT, 'database or disk is full'); END");
        return openAnother();
    }

private:
    const LocalSettings m_settings;
    const test::TestFolder m_folder;
    LocalClient m_client;
};

CLOUD_CLIENT_CONFORMANCE(LocalIndex, [] { return std::make_unique<LocalHarness>(LocalSettings()); });
CLOUD_CLIENT_CONFORMANCE(LocalFiles, [] { return std::make_unique<LocalHarness>(test::nothingInline); });

} // namespace

} // namespace storage::clients
