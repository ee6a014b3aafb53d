#include "CredentialsSources.hpp"
#include "ServiceEndpoints.hpp"
#include "SharedConfig.hpp"

#include <storage/clients/credentials/CredentialsService.hpp>
#include <storage/clients/credentials/FixedCredentials.hpp>
#include <storage/clients/credentials/RefreshingCredentials.hpp>
#include <storage/clients/s3/Credentials.hpp>

#include <utility>
#include <vector>

namespace storage::clients::s3
{

std::shared_ptr<CredentialsSource> fixedCredentials(Credentials credentials)
{
    return std::make_shared<FixedCredentials<CredentialsSource>>(std::move(credentials));
}

std::shared_ptr<CredentialsSource> anonymousCredentials()
{
    return fixedCredentials({});
}

void checkUsable(const Credentials& credentials)
{
    requireNoControlCharacters(
        {credentials.keyId, credentials.secret, credentials.sessionToken}, "key id, secret or session token");
}

CredentialsLoader credentialsChain(SourceContext context)
{
    const auto shared = std::make_shared<const SourceContext>(std::move(context));
    std::vector<CredentialsLoader> sources;
    if (shared->profile.empty())
    {
        sources.emplace_back([shared] { return environmentCredentials(*shared); });
        sources.emplace_back([shared] { return webIdentityCredentials(*shared); });
    }
    sources.emplace_back([shared] { return profileCredentials(*shared); });
    sources.emplace_back([shared] { return containerCredentials(*shared); });
    sources.emplace_back(
        [shared, hasResponded = false]() mutable { return machineCredentials(*shared, hasResponded); });
    return firstOf<Credentials>(std::move(sources));
}

std::shared_ptr<CredentialsSource> defaultCredentials(
    const std::string& profile, const std::filesystem::path& authorities, const std::function<bool()>& interrupted)
{
    return std::make_shared<RefreshingCredentials<CredentialsSource>>(
        credentialsChain({{Environment::ofProcess({"AWS_"}), authorities, interrupted}, profile}));
}

std::string defaultRegion(const std::string& profile)
{
    return configured({{Environment::ofProcess({"AWS_"})}, profile}, {"AWS_REGION", "AWS_DEFAULT_REGION"}, "region");
}

std::string defaultEndpoint(const std::string& profile)
{
    const auto address = configuredAddress({{Environment::ofProcess({"AWS_"})}, profile}, "s3");
    return address ? address->url : "";
}

std::filesystem::path defaultAuthorities(const std::string& profile)
{
    const SourceContext context{{Environment::ofProcess({"AWS_"})}, profile};
    return expandHome(context.environment, configured(context, {"AWS_CA_BUNDLE"}, "ca_bundle"));
}

} // namespace storage::clients::s3
