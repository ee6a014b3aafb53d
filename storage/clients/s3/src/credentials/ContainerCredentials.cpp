#include "CredentialsDocument.hpp"
#include "CredentialsSources.hpp"

#include <storage/clients/credentials/CredentialsService.hpp>
#include <storage/clients/credentials/ServiceAddress.hpp>
#include <storage/clients/credentials/SmallFile.hpp>

#include <algorithm>
#include <utility>

namespace storage::clients::s3
{

namespace
{

constexpr const char* relative = "AWS_CONTAINER_CREDENTIALS_RELATIVE_URI";
constexpr const char* full = "AWS_CONTAINER_CREDENTIALS_FULL_URI";
constexpr const char* tokenFile = "AWS_CONTAINER_AUTHORIZATION_TOKEN_FILE";

std::string authorization(const Environment& environment)
{
    const std::string& path = environment[tokenFile];
    std::string token = path.empty() ? environment["AWS_CONTAINER_AUTHORIZATION_TOKEN"]
                                     : readSmallFile(path, std::string("which ") + tokenFile + " names");
    token.erase(token.find_last_not_of(" \t\r\n") + 1);
    if (std::any_of(token.begin(), token.end(), [](char letter) { return letter >= 0 && letter < ' '; }))
    {
        throw invalidCredentials("the authorization token of the container has more than one line");
    }
    return token;
}

} // namespace

LoadResult containerCredentials(const SourceContext& context)
{
    const auto url = containerEndpoint(context.environment);
    if (!url)
    {
        return NoCredentials{std::string("neither ") + relative + " nor " + full + " is set"};
    }
    HttpHeaders headers;
    // Read each time: the file may be replaced while the program runs.
    if (std::string token = authorization(context.environment); !token.empty())
    {
        headers.add("Authorization", std::move(token));
    }
    CredentialsService service(context, "the container's credentials endpoint", CredentialsService::Place::Near);
    return service.read(service.send({"GET", *url, headers}), readCredentialsDocument);
}

std::optional<std::string> containerEndpoint(const Environment& environment)
{
    if (const std::string& path = environment[relative]; !path.empty())
    {
        if (!path.starts_with('/'))
        {
            throw invalidCredentials(std::string(relative) + " must begin with \"/\"");
        }
        return "http://169.254.170.2" + path;
    }
    const std::string& url = environment[full];
    if (url.empty())
    {
        return std::nullopt;
    }
    const ServiceAddress address = parseAddress(full, url);
    // Link-local addresses at which the machine responds to its containers.
    const bool isMachine =
        address.host == "169.254.170.2" || address.host == "169.254.170.23" || address.host == "[fd00:ec2::23]";
    if (!isPrivate(address) && !(isMachine && address.scheme == "http"))
    {
        throw invalidCredentials(std::string(full) + " must be https, or http on this machine");
    }
    return url;
}

} // namespace storage::clients::s3
