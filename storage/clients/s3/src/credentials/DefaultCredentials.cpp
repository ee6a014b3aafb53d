#include "CredentialsService.hpp"
#include "RefreshingCredentials.hpp"
#include "ServiceAddress.hpp"
#include "SharedConfig.hpp"

#include <storage/clients/s3/Credentials.hpp>

#include <utility>
#include <vector>

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

CredentialsLoader credentialsChain(SourceContext context)
{
    using Source = std::function<LoadResult(const SourceContext&)>;
    std::vector<Source> sources{profileCredentials, containerCredentials,
        [hasResponded = false](const SourceContext& shared) mutable
        { return machineCredentials(shared, hasResponded); }};
    if (context.profile.empty())
    {
        sources.insert(sources.begin(), {environmentCredentials, webIdentityCredentials});
    }
    return [context = std::move(context), sources = std::move(sources), hasLoaded = false]() mutable -> LoadResult
    {
        std::string reasons;
        for (const Source& source : sources)
        {
            LoadResult result = NoCredentials{};
            try
            {
                result = source(context);
            }
            catch (const UnreachableService& failure)
            {
                const std::string detail = failure.detail().value_or(failure.what());
                hasLoaded ? throw : throw invalidCredentials(detail + "; check its address and the network");
            }
            const auto* none = std::get_if<NoCredentials>(&result);
            if (none == nullptr)
            {
                hasLoaded = true;
                return result;
            }
            reasons += (reasons.empty() ? "" : "; ") + none->reason;
        }
        return NoCredentials{reasons};
    };
}

std::shared_ptr<CredentialsSource> defaultCredentials(
    const std::string& profile, const std::filesystem::path& authorities, const std::function<bool()>& interrupted)
{
    return std::make_shared<RefreshingCredentials>(
        credentialsChain({Environment::ofProcess(), profile, authorities, interrupted}));
}

std::string defaultRegion(const std::string& profile)
{
    return configured({Environment::ofProcess(), profile}, {"AWS_REGION", "AWS_DEFAULT_REGION"}, "region");
}

std::string defaultEndpoint(const std::string& profile)
{
    const auto address = configuredAddress({Environment::ofProcess(), profile}, "s3");
    return address ? address->url : "";
}

std::filesystem::path defaultAuthorities(const std::string& profile)
{
    const SourceContext context{Environment::ofProcess(), profile};
    return expandHome(context.environment, configured(context, {"AWS_CA_BUNDLE"}, "ca_bundle"));
}

} // namespace storage::clients::s3
