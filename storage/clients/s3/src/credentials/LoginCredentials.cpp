#include "CredentialsDocument.hpp"
#include "CredentialsSources.hpp"
#include "ServiceEndpoints.hpp"
#include "SharedConfig.hpp"

#include <storage/clients/credentials/CredentialsService.hpp>
#include <storage/clients/credentials/SmallFile.hpp>
#include <storage/clients/http/Hashing.hpp>
#include <storage/clients/http/RequestBody.hpp>
#include <storage/clients/http/UriEncoding.hpp>
#include <storage/cloudprovider/Logger.hpp>

#include <ctime>
#include <exception>
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

std::string readFile(const std::filesystem::path& file, const SharedSection& session)
{
    return readSmallFile(file, "where \"aws sso login\" keeps the login of " + session.where);
}

cloudprovider::InvalidCredentialsException expired(const SharedSection& session, const std::string& reason)
{
    return invalidCredentials(
        "the login of " + session.where + " has expired, and " + reason + "; run \"aws sso login\"");
}

/// Renew a login with its refresh token, and keep it in its file for the store's own tools.
///
/// @param login  the text of the file
/// @return its new text
std::string renew(const SourceContext& context, const SharedSection& session, const std::filesystem::path& file,
    const std::string& login)
{
    const auto request = renewalRequest(login);
    if (!request)
    {
        throw expired(session, file.string() + " has nothing to renew it with");
    }
    const ServiceAddress address = regionalAddress(context, "sso_oidc", "oidc", session["sso_region"]);
    CredentialsService service(context, "the login service at " + address.url, CredentialsService::Place::Far);
    TextBody body(*request);
    HttpRequest http{.method = "POST", .url = address.url + "/token", .body = &body};
    http.headers.add("Content-Type", "application/json");
    const HttpResponse response = service.send(http);
    if (response.status != 200)
    {
        // Another program may have renewed it meanwhile. A refresh token can be valid only once.
        std::string current = readFile(file, session);
        if (current == login)
        {
            throw expired(session, service.name() + " refuses to renew it: status " + std::to_string(response.status));
        }
        return current;
    }
    std::string renewed = service.read(
        response, [&login](const std::string& text) { return renewedLogin(login, text, std::time(nullptr)); });
    try
    {
        replaceSmallFile(file, renewed);
    }
    catch (const std::exception& failure)
    {
        cloudprovider::getLogger().write(foundation::log::severity::warning,
            "The renewed login could not be kept in " + file.string() + ": " + failure.what());
    }
    return renewed;
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
    const auto ask = [&](const std::string& login)
    {
        HttpRequest request{.method = "GET", .url = address.url + "/federation/credentials?" + query};
        request.headers.add("x-amz-sso_bearer_token", readLogin(login));
        return portal.send(request);
    };
    try
    {
        const std::string login = readFile(file, session);
        HttpResponse response = ask(login);
        if (response.status == 401)
        {
            response = ask(renew(context, session, file, login));
        }
        if (response.status == 401)
        {
            throw expired(session, portal.name() + " refuses the renewed one");
        }
        return portal.read(response, readPortalCredentials);
    }
    catch (const CredentialsDocumentError& fault)
    {
        throw invalidCredentials("the login of " + session.where + " in " + file.string() + ": " + fault.what());
    }
}

} // namespace storage::clients::s3
