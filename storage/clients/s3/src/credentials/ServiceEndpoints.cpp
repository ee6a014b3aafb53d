#include "ServiceEndpoints.hpp"

#include "SharedConfig.hpp"

#include <storage/clients/common/KeyRules.hpp>
#include <storage/clients/credentials/CredentialsFailure.hpp>

#include <fmt/format.h>

namespace storage::clients::s3
{

namespace
{

/// The end of the name of each host in a region.
std::string hostSuffix(const std::string& region)
{
    constexpr std::string_view letters = "abcdefghijklmnopqrstuvwxyzABCDEFGHIJKLMNOPQRSTUVWXYZ0123456789-";
    if (region.find_first_not_of(letters) != std::string::npos || region.size() > 63)
    {
        throw invalidCredentials(quoted(region) + " is not a valid region name");
    }
    return fmt::format("{}{}.{}", region.empty() ? "" : ".", region, domainOf(region));
}

} // namespace

std::string_view domainOf(std::string_view region)
{
    return region.starts_with("cn-") ? "amazonaws.com.cn" : "amazonaws.com";
}

std::optional<ServiceAddress> configuredAddress(const SourceContext& context, const std::string& service)
{
    const ConfiguredEndpoint configured = configuredEndpoint(context, service);
    if (configured.url.empty())
    {
        return std::nullopt;
    }
    ServiceAddress address = parseAddress(configured.namedBy, configured.url);
    if (address.scheme != "https" && address.scheme != "http")
    {
        throw invalidCredentials(configured.namedBy + " must be like https://HOST or http://HOST:PORT");
    }
    // Other services receive signatures or short-lived tokens. That of a login is a person's, for all accounts.
    if ((service == "sso" || service == "sso_oidc") && !isPrivate(address))
    {
        throw invalidCredentials(configured.namedBy + " must be https, or http on this machine, to use a login");
    }
    return address;
}

ServiceAddress regionalAddress(
    const SourceContext& context, const std::string& service, const std::string& host, const std::string& region)
{
    const auto configured = configuredAddress(context, service);
    return configured ? *configured : parseAddress("the endpoint", "https://" + host + hostSuffix(region));
}

} // namespace storage::clients::s3
