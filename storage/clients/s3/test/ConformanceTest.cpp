#include "FileSession.hpp"
#include "Gateway.hpp"

#include <storage/clients/conformance/CloudClientConformance.hpp>

namespace storage::clients
{

namespace
{

class S3Harness : public conformance::Harness
{
public:
    S3Harness(bool pathStyle, bool worksAhead)
        : m_settings(m_bucket.settings())
    {
        if (!pathStyle)
        {
            m_settings.pathStyle = false;
            m_settings.endpoint.replace(m_settings.endpoint.find("127.0.0.1"), 9, "localhost");
        }
        m_client = std::make_shared<S3Client>(m_settings);
        m_client = worksAhead ? s3::test::workingAhead(m_client) : m_client;
    }

    cloudprovider::CloudClient& client() override { return *m_client; }
    cloudprovider::CloudClientSharedPtr openAnother() override { return std::make_shared<S3Client>(m_settings); }

    conformance::Capabilities capabilities() const override
    {
        return {5 << 20, "", "", "an object is cut by rule", "this gateway wants every part listed",
            "the store hears of an upload with its first part"};
    }

private:
    const s3::test::GatewayBucket m_bucket;
    s3::S3Settings m_settings;
    cloudprovider::CloudClientSharedPtr m_client;
};

std::unique_ptr<conformance::Harness> makeHarness(bool pathStyle, bool worksAhead)
{
    if (!s3::test::GatewayBucket::isAvailable())
    {
        return nullptr; // the case is skipped
    }
    return std::make_unique<S3Harness>(pathStyle, worksAhead);
}

CLOUD_CLIENT_CONFORMANCE(S3, [] { return makeHarness(true, false); });
CLOUD_CLIENT_CONFORMANCE(S3VirtualHostWorkingAhead, [] { return makeHarness(false, true); });

} // namespace

} // namespace storage::clients
