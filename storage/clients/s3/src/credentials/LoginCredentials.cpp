#include "CredentialsService.hpp"
#include "ServiceAddress.hpp"
#include "SharedConfig.hpp"
#include "SmallFile.hpp"

#include <storage/clients/http/Hashing.hpp>
#include <storage/clients/http/UriEncoding.hpp>

#include <filesystem>
#include <string>

namespace storage::clients::s3
{

namespace
{

const std::string& required(const SharedSection& section, const char* setting)
{
    const std::string& value = section[setting];
    if (value.empty())
    {
        throw invalidCredentials(section.where + " has no " + setting);
    }
    return value;
}

/// The section that says where the portal is.
const SharedSection& sessionOf(const SharedConfig& config, const SharedSection& profile)
{
    const std::string& name = profile["sso_session"];
    if (name.empty())
    {
        return profile;
    }
    const SharedSection* const session = config.section("sso-session", name);
    if (session == nullptr)
    {
        throw invalidCredentials(
            "sso_session of " + profile.where + ": there is no section [sso-session " + name + "]");
    }
    return *session;
}

} // namespace

IssuedCredentials loginCredentials(
    const SourceContext& context, const SharedConfig& config, const SharedSection& profile)
{
    const SharedSection& session = sessionOf(config, profile);
    const std::string& startUrl = required(session, "sso_start_url");
    const std::string& region = required(session, "sso_region");
    const std::string query = encodeQuery(
        {{"account_id", required(profile, "sso_account_id")}, {"role_name", required(profile, "sso_role_name")}});

    const std::string& name = profile["sso_session"];
    const std::filesystem::path file =
        expandHome(context.environment, "~/.aws/sso/cache/" + sha1Hex(name.empty() ? startUrl : name) + ".json");
    const ServiceAddress address = regionalAddress(context, "sso", "portal.sso", region);
    CredentialsService portal(context, "the login portal at " + address.url + ", asked for " + profile.where + ",",
        CredentialsService::Place::Far);
    try
    {
        HttpRequest request{.method = "GET", .url = address.url + "/federation/credentials?" + query};
        request.headers.add("x-amz-sso_bearer_token",
            readLogin(readSmallFile(file, "where \"aws sso login\" keeps the login of " + session.where)));
        const HttpResponse response = portal.send(request);
        if (response.status == 401)
        {
            throw invalidCredentials(
                portal.name() + " says that the login has expired; log in again with \"aws sso login\"");
        }
        return portal.read(response, readPortalCredentials);
    }
    catch (const CredentialsDocumentError& fault)
    {
        throw invalidCredentials("the login of " + session.where + " in " + file.string() + ": " + fault.what());
    }
}

} // namespace storage::clients::s3
