#include "CredentialsDocument.hpp"
#include "CredentialsSources.hpp"

#include <storage/clients/credentials/CredentialsService.hpp>

#include <boost/algorithm/string/predicate.hpp>

#include <string_view>

namespace storage::clients::s3
{

namespace
{

constexpr const char* tokenLifetime = "60"; // seconds; each load requests a new token
constexpr const char* roles = "/latest/meta-data/iam/security-credentials/";

std::string endpointOf(const Environment& environment)
{
    std::string endpoint = environment["AWS_EC2_METADATA_SERVICE_ENDPOINT"];
    if (endpoint.empty())
    {
        return "http://169.254.169.254";
    }
    endpoint.erase(endpoint.find_last_not_of('/') + 1);
    return endpoint;
}

std::string firstLine(std::string_view text)
{
    return std::string(text.substr(0, text.find_first_of("\r\n")));
}

/// Whether text from the service may become a part of the next URL.
bool isRoleName(std::string_view text)
{
    constexpr std::string_view letters = "abcdefghijklmnopqrstuvwxyzABCDEFGHIJKLMNOPQRSTUVWXYZ0123456789+=,.@_-";
    return !text.empty() && text.find_first_not_of(letters) == text.npos;
}

LoadResult request(CredentialsService& service, const std::string& endpoint, bool& hasResponded)
{
    const auto send = [&](const char* method, const std::string& path, const char* field, const std::string& value)
    {
        HttpHeaders headers;
        headers.add(field, value);
        return service.send({method, endpoint + path, headers});
    };
    const HttpResponse token = send("PUT", "/latest/api/token", "X-aws-ec2-metadata-token-ttl-seconds", tokenLifetime);
    hasResponded = true;
    if (token.status != 200)
    {
        return NoCredentials{service.name() + " returned no token: status " + std::to_string(token.status)};
    }
    const auto get = [&](const std::string& path)
    { return send("GET", path, "X-aws-ec2-metadata-token", firstLine(token.body)); };
    const HttpResponse role = get(roles);
    if (role.status == 404)
    {
        return NoCredentials{service.name() + " has no role for this machine"};
    }
    const std::string name = firstLine(role.body);
    if (role.status != 200 || !isRoleName(name))
    {
        throw invalidCredentials(service.name() + " returned no role: status " + std::to_string(role.status));
    }
    return service.read(get(roles + name), readCredentialsDocument);
}

} // namespace

LoadResult machineCredentials(const SourceContext& context, bool& hasResponded)
{
    if (boost::algorithm::iequals(context.environment["AWS_EC2_METADATA_DISABLED"], "true"))
    {
        return NoCredentials{"AWS_EC2_METADATA_DISABLED is set"};
    }
    CredentialsService service(context, "the machine's metadata service", CredentialsService::Place::Near);
    try
    {
        return request(service, endpointOf(context.environment), hasResponded);
    }
    catch (const UnreachableService& failure)
    {
        if (hasResponded)
        {
            throw;
        }
        return NoCredentials{failure.detail().value_or(failure.what())};
    }
}

} // namespace storage::clients::s3
