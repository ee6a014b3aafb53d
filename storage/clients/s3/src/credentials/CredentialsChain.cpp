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
        m_places.push_back(std::make_unique<EnvironmentCredentials>(environment));
    }
    m_places.push_back(std::make_unique<ProfileCredentials>(environment, profile));
    m_places.push_back(std::make_unique<ContainerCredentials>(environment));
    m_places.push_back(std::make_unique<MachineCredentials>(environment));
}

CredentialsPlace::Finding CredentialsChain::look()
{
    std::string reasons;
    for (const auto& place : m_places)
    {
        Finding finding = place->look();
        const auto* none = std::get_if<NoCredentials>(&finding);
        if (none == nullptr)
        {
            return finding;
        }
        reasons += (reasons.empty() ? "" : "; ") + none->reason;
    }
    return NoCredentials{reasons};
}

} // namespace storage::clients::s3
