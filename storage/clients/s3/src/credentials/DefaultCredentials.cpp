#include "CredentialsChain.hpp"
#include "Environment.hpp"
#include "ProfileCredentials.hpp"
#include "RefreshingCredentials.hpp"

#include <storage/clients/s3/Credentials.hpp>

#include <utility>

namespace storage::clients::s3
{

namespace
{

class FixedCredentials : public CredentialsSource
{
public:
    explicit FixedCredentials(Credentials credentials)
        : m_credentials(std::move(credentials))
    {
    }

    Credentials credentials() override { return m_credentials; }

private:
    const Credentials m_credentials;
};

} // namespace

std::shared_ptr<CredentialsSource> fixedCredentials(Credentials credentials)
{
    return std::make_shared<FixedCredentials>(std::move(credentials));
}

std::shared_ptr<CredentialsSource> anonymousCredentials()
{
    return fixedCredentials({});
}

std::shared_ptr<CredentialsSource> defaultCredentials(const std::string& profile)
{
    return std::make_shared<RefreshingCredentials>(
        std::make_unique<CredentialsChain>(Environment::ofProcess(), profile));
}

std::string defaultRegion(const std::string& profile)
{
    const Environment environment = Environment::ofProcess();
    for (const char* name : {"AWS_REGION", "AWS_DEFAULT_REGION"})
    {
        if (const std::string& region = environment[name]; !region.empty())
        {
            return region;
        }
    }
    return ProfileCredentials(environment, profile).region();
}

} // namespace storage::clients::s3
