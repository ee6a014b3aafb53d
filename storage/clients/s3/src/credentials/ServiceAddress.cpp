#include "ServiceAddress.hpp"

#include "CredentialsFailure.hpp"
#include "SharedConfig.hpp"

#include <storage/clients/common/KeyRules.hpp>

#include <arpa/inet.h>

#include <curl/curl.h>
#include <fmt/format.h>

#include <memory>
#include <new>

namespace storage::clients::s3
{

namespace
{

std::string partOf(CURLU* address, CURLUPart part)
{
    char* text = nullptr;
    if (curl_url_get(address, part, &text, CURLU_NO_DEFAULT_PORT) != CURLUE_OK)
    {
        return {};
    }
    const std::unique_ptr<char, decltype(&curl_free)> owner(text, &curl_free);
    return text;
}

/// Whether requests to the host stay on this machine.
bool isLocal(const std::string& host)
{
    in_addr address{};
    if (::inet_pton(AF_INET, host.c_str(), &address) == 1)
    {
        return host.starts_with("127.") || host == "169.254.170.2" || host == "169.254.170.23";
    }
    return host == "localhost" || host == "[::1]" || host == "[fd00:ec2::23]";
}

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

ServiceAddress parseAddress(const std::string& name, const std::string& url)
{
    const std::string base = url.substr(0, url.find_last_not_of('/') + 1);
    const std::unique_ptr<CURLU, decltype(&curl_url_cleanup)> parsed(curl_url(), &curl_url_cleanup);
    if (parsed == nullptr)
    {
        throw std::bad_alloc();
    }
    if (curl_url_set(parsed.get(), CURLUPART_URL, base.c_str(), CURLU_PATH_AS_IS) != CURLUE_OK)
    {
        throw invalidCredentials(name + " is not a valid URL");
    }
    if (!partOf(parsed.get(), CURLUPART_USER).empty())
    {
        throw invalidCredentials(name + " must not contain a user name");
    }
    return {base, partOf(parsed.get(), CURLUPART_SCHEME), partOf(parsed.get(), CURLUPART_HOST),
        partOf(parsed.get(), CURLUPART_PORT), partOf(parsed.get(), CURLUPART_PATH)};
}

bool isPrivate(const ServiceAddress& address)
{
    return address.scheme == "https" || (address.scheme == "http" && isLocal(address.host));
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
