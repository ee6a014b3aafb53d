#include "TokenService.hpp"

#include <storage/clients/common/KeyRules.hpp>
#include <storage/clients/credentials/CredentialsService.hpp>
#include <storage/clients/credentials/JsonDocument.hpp>
#include <storage/clients/credentials/ServiceAddress.hpp>
#include <storage/clients/http/RequestBody.hpp>
#include <storage/clients/http/ResponseFields.hpp>

#include <cstdint>

namespace storage::clients::azure
{

namespace
{

ServiceAddress authorityOf(const SourceContext& context, const std::string& usual)
{
    constexpr const char* variable = "AZURE_AUTHORITY_HOST";
    const std::string& set = context.environment[variable];
    const std::string& host = set.empty() ? usual : set;
    const std::string name = set.empty() ? "the host of the login" : variable;
    ServiceAddress address = parseAddress(name, host.find("://") == host.npos ? "https://" + host : host);
    if (!isPrivate(address))
    {
        throw invalidCredentials(name + " must be https, or http on this machine");
    }
    return address;
}

/// Report a response that has no token. Of its message only the first line is shown: the others identify the request.
[[noreturn]] void refuse(const CredentialsService& service, const HttpResponse& response, const std::string& remedy)
{
    JsonDocument document;
    try
    {
        document = parseJson(response.body);
    }
    catch (const CredentialsDocumentError&)
    {
        // The status says it: a proxy responds with a page.
    }
    const std::string error = textOf(document, "error");
    const std::string message = textOf(document, "error_description");
    std::string detail = service.name() + " returned status " + std::to_string(response.status);
    detail += error.empty() ? "" : " " + quoted(error);
    detail += message.empty() ? "" : ": " + quoted(message.substr(0, message.find_first_of("\r\n")));
    throw invalidCredentials(detail + remedy);
}

} // namespace

std::chrono::sys_seconds readSeconds(const std::string& text)
{
    constexpr std::uint64_t latest = 253'402'300'799; // the end of 9999
    const auto number = readNumber(text);
    if (!number || *number > latest)
    {
        throw CredentialsDocumentError("its expiry is not a number of seconds");
    }
    return std::chrono::sys_seconds(std::chrono::seconds(*number));
}

IssuedCredentials readToken(const std::string& text, std::chrono::sys_seconds requested)
{
    const JsonDocument document = parseJson(text);
    const std::string token = textOf(document, "access_token");
    if (token.empty())
    {
        throw CredentialsDocumentError("it has no access_token");
    }
    const std::string time = textOf(document, "expires_on");
    const auto expiry =
        time.empty() ? requested + readSeconds(textOf(document, "expires_in")).time_since_epoch() : readSeconds(time);
    return {{.bearerToken = token}, expiry};
}

IssuedCredentials requestToken(const SourceContext& context, const Grant& grant)
{
    const ServiceAddress authority = authorityOf(context, grant.authority);
    QueryParameters parameters = grant.parameters;
    parameters.emplace_back("scope", std::string(storageResource) + ".default");
    TextBody body(encodeQuery(parameters));
    HttpRequest request{
        .method = "POST", .url = authority.url + '/' + uriEncode(grant.tenant) + "/oauth2/v2.0/token", .body = &body};
    request.headers.add("Content-Type", "application/x-www-form-urlencoded");
    CredentialsService service(context,
        "the identity service at " + authority.url + ", asked for " + grant.holder + ",",
        authority.scheme == "https" ? CredentialsService::Place::Far : CredentialsService::Place::Near);
    const auto now = std::chrono::floor<std::chrono::seconds>(std::chrono::system_clock::now());
    const HttpResponse response = service.send(request);
    if (response.status != 200)
    {
        refuse(service, response, grant.remedy);
    }
    return service.read(response, [now](const std::string& text) { return readToken(text, now); });
}

} // namespace storage::clients::azure
