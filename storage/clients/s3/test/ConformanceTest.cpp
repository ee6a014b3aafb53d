#include "Gateway.hpp"

#include <storage/clients/conformance/CloudClientConformance.hpp>

namespace storage::clients
{

namespace
{

class S3Harness : public conformance::Harness
{
public:
    explicit S3Harness(bool pathStyle)
        : m_settings(m_bucket.settings())
    {
        if (!pathStyle)
        {
            m_settings.pathStyle = false;
            m_settings.endpoint.replace(m_settings.endpoint.find("127.0.0.1"), 9, "localhost");
        }
        m_client = std::make_unique<S3Client>(m_settings);
    }

    S3Client& client() override { return *m_client; }
    cloudprovider::CloudClientSharedPtr openAnother() override { return std::make_shared<S3Client>(m_settings); }

    conformance::Capabilities capabilities() const override
    {
        return {5 << 20, "", "", "an object is cut by rule", "this gateway wants every part listed",
            "the store hears of an upload with its first part"};
    }

private:
    const s3::test::GatewayBucket m_bucket;
    s3::S3Settings m_settings;
    std::unique_ptr<S3Client> m_client;
};

std::unique_ptr<conformance::Harness> makeHarness(bool pathStyle)
{
    if (!s3::test::GatewayBucket::isAvailable())
    {
        return nullptr; // the case is skipped
    }
    return std::make_unique<S3Harness>(pathStyle);
}

CLOUD_CLIENT_CONFORMANCE(S3, [] { return makeHarness(true); });
CLOUD_CLIENT_CONFORMANCE(S3VirtualHost, [] { return makeHarness(false); });

} // namespace

} // namespace storage::clients
