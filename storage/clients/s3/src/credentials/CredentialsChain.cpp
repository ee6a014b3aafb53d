#include "CredentialsChain.hpp"

#include "ContainerCredentials.hpp"
#include "EnvironmentCredentials.hpp"
#include "MachineCredentials.hpp"
#include "ProfileCredentials.hpp"
#include "WebIdentityCredentials.hpp"

#include <string>

namespace storage::clients::s3
{

CredentialsChain::CredentialsChain(const ProviderContext& context)
{
    if (context.profile.empty())
    {
        m_providers.push_back(std::make_unique<EnvironmentCredentials>(context.environment));
        m_providers.push_back(std::make_unique<WebIdentityCredentials>(context));
    }
    m_providers.push_back(std::make_unique<ProfileCredentials>(context));
    m_providers.push_back(std::make_unique<ContainerCredentials>(context));
    m_providers.push_back(std::make_unique<MachineCredentials>(context));
}

CredentialsProvider::LoadResult CredentialsChain::load()
{
    std::string reasons;
    for (const auto& provider : m_providers)
    {
        LoadResult result = provider->load();
        const auto* none = std::get_if<NoCredentials>(&result);
        if (none == nullptr)
        {
            return result;
        }
        reasons += (reasons.empty() ? "" : "; ") + none->reason;
    }
    return NoCredentials{reasons};
}

} // namespace storage::clients::s3
