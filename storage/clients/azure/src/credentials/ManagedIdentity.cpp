#include "CredentialsSources.hpp"
#include "TokenService.hpp"

#include <storage/clients/credentials/CredentialsService.hpp>
#include <storage/clients/credentials/ServiceAddress.hpp>

#include <boost/algorithm/string/predicate.hpp>

#include <utility>

namespace storage::clients::azure
{

namespace
{

/// The request for a token of the identity that AZURE_CLIENT_ID names, else of the only one that there is.
HttpRequest tokenRequest(const Environment& environment, const std::string& url, const char* version)
{
    QueryParameters parameters{{"api-version", version}, {"resource", storageResource}};
    if (const std::string& id = environment["AZURE_CLIENT_ID"]; !id.empty())
    {
        parameters.emplace_back("client_id", id);
    }
    return {"GET", url + '?' + encodeQuery(parameters)};
}

IssuedCredentials readResponse(const CredentialsService& service, const HttpResponse& response)
{
    // The time of the request is not needed: these services tell when the token expires.
    return service.read(response, [](const std::string& text) { return readToken(text, {}); });
}

} // namespace

LoadResult appServiceCredentials(const SourceContext& context)
{
    constexpr const char* variable = "IDENTITY_ENDPOINT";
    constexpr const char* secret = "IDENTITY_HEADER";
    const std::string& endpoint = context.environment[variable];
    if (endpoint.empty())
    {
        return NoCredentials{std::string(variable) + " is not set"};
    }
    if (context.environment[secret].empty() && !context.environment["IMDS_ENDPOINT"].empty())
    {
        return NoCredentials{"tokens of Azure Arc are not supported"};
    }
    if (context.environment[secret].empty())
    {
        throw invalidCredentials(std::string(variable) + " is set without " + secret);
    }
    const ServiceAddress address = parseAddress(variable, endpoint);
    const bool isMachine = isAddressIn(address.host, "169.254."); // link-local
    if (!isPrivate(address) && !(isMachine && address.scheme == "http"))
    {
        throw invalidCredentials(std::string(variable) + " must be https, or http on this machine");
    }
    HttpRequest request = tokenRequest(context.environment, endpoint, "2019-08-01");
    request.headers.add("X-IDENTITY-HEADER", context.environment[secret]);
    CredentialsService service(context, "the app's identity endpoint", CredentialsService::Place::Near);
    return readResponse(service, service.send(std::move(request)));
}

LoadResult machineCredentials(const SourceContext& context, bool& hasIssued)
{
    if (boost::algorithm::iequals(context.environment["AZURE_METADATA_DISABLED"], "true"))
    {
        return NoCredentials{"AZURE_METADATA_DISABLED is set"};
    }
    const std::string& host = context.environment["AZURE_POD_IDENTITY_AUTHORITY_HOST"];
    const std::string url = host.empty() ? "http://169.254.169.254" : host.substr(0, host.find_last_not_of('/') + 1);
    HttpRequest request = tokenRequest(context.environment, url + "/metadata/identity/oauth2/token", "2018-02-01");
    request.headers.add("Metadata", "true");
    CredentialsService service(context, "the machine's metadata service", CredentialsService::Place::Near);
    try
    {
        const HttpResponse response = service.send(std::move(request));
        const std::string status = service.name() + " returned no token: status " + std::to_string(response.status);
        const bool isUpdating = response.status == 410 || (response.status == 404 && hasIssued);
        if (isUpdating)
        {
            throw credentialsUnavailable(status);
        }
        if (response.status != 200 && !hasIssued)
        {
            return NoCredentials{status};
        }
        IssuedCredentials result = readResponse(service, response);
        hasIssued = true;
        return result;
    }
    catch (const UnreachableService& failure)
    {
        if (hasIssued)
        {
            throw;
        }
        return NoCredentials{failure.detail().value_or(failure.what())};
    }
}

} // namespace storage::clients::azure
