#include "CredentialsChain.hpp"

#include "ContainerCredentials.hpp"
#include "EnvironmentCredentials.hpp"
#include "MachineCredentials.hpp"
#include "ProfileCredentials.hpp"

namespace storage::clients::s3
{

CredentialsChain::CredentialsChain(const Environment& environment, const std::string& profile)
{
    if (profile.empty())
    {
        m_providers.push_back(std::make_unique<EnvironmentCredentials>(environment));
    }
    m_providers.push_back(std::make_unique<ProfileCredentials>(environment, profile));
    m_providers.push_back(std::make_unique<ContainerCredentials>(environment));
    m_providers.push_back(std::make_unique<MachineCredentials>(environment));
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
