#include "CredentialsSources.hpp"

#include <storage/clients/credentials/FixedCredentials.hpp>
#include <storage/clients/credentials/RefreshingCredentials.hpp>

#include <utility>
#include <vector>

namespace storage::clients::azure
{

std::shared_ptr<CredentialsSource> fixedCredentials(Credentials credentials)
{
    return std::make_shared<FixedCredentials<CredentialsSource>>(std::move(credentials));
}

void checkUsable(const Credentials& credentials)
{
    requireNoControlCharacters(
        {credentials.accountKey, credentials.sas, credentials.bearerToken}, "account key, signature or token");
}

CredentialsLoader credentialsChain(SourceContext context)
{
    const auto shared = std::make_shared<const SourceContext>(std::move(context));
    return firstOf<Credentials>({
        [shared] { return variableCredentials(*shared); },
        [shared] { return applicationCredentials(*shared); },
        [shared] { return appServiceCredentials(*shared); },
        [shared] { return configuredCredentials(*shared); },
        [shared, usedToken = std::string()]() mutable { return loginCredentials(*shared, usedToken); },
        [shared, hasIssued = false]() mutable { return machineCredentials(*shared, hasIssued); },
    });
}

std::shared_ptr<CredentialsSource> defaultCredentials(
    const std::string& account, const std::filesystem::path& authorities, const std::function<bool()>& interrupted)
{
    return std::make_shared<RefreshingCredentials<CredentialsSource>>(credentialsChain(
        {{Environment::ofProcess({"AZURE_", "IDENTITY_", "IMDS_"}), authorities, interrupted}, account}));
}

} // namespace storage::clients::azure
