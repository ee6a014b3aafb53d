#include "LoginCredentials.hpp"

#include "CredentialsDocument.hpp"
#include "CredentialsFailure.hpp"
#include "CredentialsService.hpp"
#include "ServiceAddress.hpp"
#include "SmallFile.hpp"

#include <storage/clients/http/Hashing.hpp>
#include <storage/clients/http/UriEncoding.hpp>

#include <chrono>
#include <filesystem>
#include <string>

namespace storage::clients::s3
{

namespace
{

using namespace std::chrono_literals;

constexpr auto deadline = 20s;

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
    const SharedSection* const session = config.session(name);
    if (session == nullptr)
    {
        throw invalidCredentials(
            "sso_session of " + profile.where + ": there is no section [sso-session " + name + "]");
    }
    return *session;
}

std::string readToken(const std::filesystem::path& file, const std::string& where)
{
    const std::string text = readSmallFile(file, "where \"aws sso login\" keeps the login of " + where);
    try
    {
        return readLogin(text);
    }
    catch (const CredentialsDocumentError& fault)
    {
        throw invalidCredentials("the login of " + where + " in " + file.string() + ": " + fault.what());
    }
}

} // namespace

IssuedCredentials loginCredentials(
    const ProviderContext& context, const SharedConfig& config, const SharedSection& profile)
{
    const SharedSection& session = sessionOf(config, profile);
    const std::string& startUrl = required(session, "sso_start_url");
    const std::string& region = required(session, "sso_region");
    const std::string query = encodeQuery(
        {{"account_id", required(profile, "sso_account_id")}, {"role_name", required(profile, "sso_role_name")}});

    const std::string& name = profile["sso_session"];
    const std::string file = sha1Hex(name.empty() ? startUrl : name) + ".json";
    const std::string token = readToken(expandHome(context.environment, "~/.aws/sso/cache/" + file), session.where);
    const ServiceAddress address = regionalAddress(context.environment, "SSO", "portal.sso", region);
    CredentialsService service({.name = "the login portal at " + address.url + ", asked for " + profile.where + ",",
        .deadline = deadline,
        .authorities = context.authorities,
        .interrupted = context.interrupted});
    HttpRequest request{.method = "GET", .url = address.url + "/federation/credentials?" + query};
    request.headers.add("x-amz-sso_bearer_token", token);
    try
    {
        const HttpResponse response = service.send(request);
        if (response.status == 401)
        {
            throw invalidCredentials(
                service.name() + " says that the login has expired; log in again with \"aws sso login\"");
        }
        return service.read(response, readPortalCredentials);
    }
    catch (const HttpFailure& failure)
    {
        service.fail(failure);
    }
}

} // namespace storage::clients::s3
