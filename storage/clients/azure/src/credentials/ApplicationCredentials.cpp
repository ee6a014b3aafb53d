#include "CredentialsSources.hpp"
#include "TokenService.hpp"

#include <storage/clients/common/KeyRules.hpp>
#include <storage/clients/credentials/SmallFile.hpp>

namespace storage::clients::azure
{

LoadResult applicationCredentials(const SourceContext& context)
{
    constexpr const char* secret = "AZURE_CLIENT_SECRET";
    constexpr const char* tokenFile = "AZURE_FEDERATED_TOKEN_FILE";
    constexpr const char* certificate = "AZURE_CLIENT_CERTIFICATE_PATH";
    const Environment& environment = context.environment;
    const bool hasSecret = !environment[secret].empty();
    if (!hasSecret && !environment[certificate].empty())
    {
        throw invalidCredentials(std::string(certificate) + " is set, but certificates are not supported; set " +
                                 secret + " or " + tokenFile);
    }
    if (!hasSecret && environment[tokenFile].empty())
    {
        return NoCredentials{std::string(secret) + " and " + tokenFile + " are not set"};
    }
    for (const char* name : {"AZURE_TENANT_ID", "AZURE_CLIENT_ID"})
    {
        if (environment[name].empty())
        {
            throw invalidCredentials(std::string(hasSecret ? secret : tokenFile) + " is set without " + name);
        }
    }
    const std::string& id = environment["AZURE_CLIENT_ID"];
    Grant grant{.holder = "the application " + quoted(id) + " of AZURE_CLIENT_ID",
        .tenant = environment["AZURE_TENANT_ID"],
        .authority = "login.microsoftonline.com",
        .parameters = {{"client_id", id}, {"grant_type", "client_credentials"}}};
    if (hasSecret)
    {
        grant.parameters.emplace_back("client_secret", environment[secret]);
    }
    else
    {
        // Read each time: the file is replaced while the program runs.
        grant.parameters.emplace_back(
            "client_assertion_type", "urn:ietf:params:oauth:client-assertion-type:jwt-bearer");
        grant.parameters.emplace_back("client_assertion", readSmallFile(expandHome(environment, environment[tokenFile]),
                                                              std::string("which ") + tokenFile + " names"));
    }
    return requestToken(context, grant);
}

} // namespace storage::clients::azure
