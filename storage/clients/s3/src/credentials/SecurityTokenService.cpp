#include "SecurityTokenService.hpp"
#include "CredentialsDocument.hpp"
#include "ServiceEndpoints.hpp"
#include "SharedConfig.hpp"
#include "signing/RequestSigner.hpp"

#include <storage/clients/common/KeyRules.hpp>
#include <storage/clients/credentials/CredentialsService.hpp>
#include <storage/clients/credentials/SmallFile.hpp>
#include <storage/clients/http/Hashing.hpp>
#include <storage/clients/http/RequestBody.hpp>
#include <storage/clients/http/UriEncoding.hpp>

#include <pugixml.hpp>

#include <algorithm>
#include <array>
#include <ctime>
#include <string_view>
#include <utility>

namespace storage::clients::s3
{

namespace
{

constexpr const char* ourSession = "cloudprovider";

/// The regions whose requests the global endpoint serves where AWS_STS_REGIONAL_ENDPOINTS asks for that.
constexpr std::array<std::string_view, 16> legacyRegions{"ap-northeast-1", "ap-south-1", "ap-southeast-1",
    "ap-southeast-2", "aws-global", "ca-central-1", "eu-central-1", "eu-north-1", "eu-west-1", "eu-west-2", "eu-west-3",
    "sa-east-1", "us-east-1", "us-east-2", "us-west-1", "us-west-2"};

bool usesGlobalEndpoint(const SourceContext& context, const std::string& region)
{
    const std::string kind = configured(context, {"AWS_STS_REGIONAL_ENDPOINTS"}, "sts_regional_endpoints");
    if (!kind.empty() && kind != "regional" && kind != "legacy")
    {
        throw invalidCredentials("AWS_STS_REGIONAL_ENDPOINTS or sts_regional_endpoints must be regional or legacy");
    }
    return kind == "legacy" && std::find(legacyRegions.begin(), legacyRegions.end(), region) != legacyRegions.end();
}

/// Report a response that has no credentials. Only the first line of its message is shown: that of a wrong signature
/// goes on with the signed fields, and one of them is the session token.
[[noreturn]] void refuse(const CredentialsService& service, const HttpResponse& response)
{
    pugi::xml_document document;
    document.load_buffer(response.body.data(), response.body.size());
    const pugi::xml_node error = document.document_element().child("Error");
    const std::string code = error.child("Code").text().as_string();
    const std::string message = error.child("Message").text().as_string();
    std::string detail = service.name() + " returned status " + std::to_string(response.status);
    detail += code.empty() ? "" : " " + quoted(code);
    detail += message.empty() ? "" : ": " + quoted(message.substr(0, message.find('\n')));
    if (code == "Throttling" || code == "IDPCommunicationError")
    {
        throw credentialsUnavailable(detail);
    }
    throw invalidCredentials(detail);
}

/// @param caller  null: the parameters say who asks
IssuedCredentials request(
    const SourceContext& context, const RoleRequest& role, QueryParameters parameters, const Credentials* caller)
{
    constexpr const char* globalRegion = "us-east-1"; // where the global endpoint is
    std::string region = configured(context, {"AWS_REGION", "AWS_DEFAULT_REGION"}, "region");
    region = region.empty() ? globalRegion : region;
    const bool isGlobal = usesGlobalEndpoint(context, region);
    const ServiceAddress address = regionalAddress(context, "sts", "sts", isGlobal ? "" : region);

    parameters.insert(
        parameters.end(), {{"Version", "2011-06-15"}, {"RoleArn", role.arn},
                              {"RoleSessionName", role.sessionName.empty() ? ourSession : role.sessionName}});
    if (!role.duration.empty())
    {
        parameters.emplace_back("DurationSeconds", role.duration);
    }
    const std::string form = encodeQuery(parameters);
    TextBody body(form);
    HttpRequest http{.method = "POST", .url = address.url, .body = &body};
    http.headers.add("Content-Type", "application/x-www-form-urlencoded");
    if (caller != nullptr)
    {
        const std::string host = address.host + (address.port.empty() ? "" : ":" + address.port);
        sign(http,
            {host, address.path, "", sha256Hex(form), isGlobal ? globalRegion : region, std::time(nullptr), "sts"},
            *caller);
    }
    CredentialsService service(context,
        "the security token service at " + address.url + ", asked for role " + role.arn + " of " + role.namedBy + ",",
        CredentialsService::Place::Far);
    const HttpResponse response = service.send(http);
    if (response.status != 200)
    {
        refuse(service, response);
    }
    return service.read(response, readAssumedRole);
}

} // namespace

IssuedCredentials assumeRole(const SourceContext& context, const RoleRequest& role, const Credentials& caller)
{
    QueryParameters parameters{{"Action", "AssumeRole"}};
    if (!role.externalId.empty())
    {
        parameters.emplace_back("ExternalId", role.externalId);
    }
    return request(context, role, std::move(parameters), &caller);
}

IssuedCredentials assumeRoleWithWebIdentity(
    const SourceContext& context, const RoleRequest& role, const std::string& tokenFile, const std::string& namedBy)
{
    const std::string token = readSmallFile(expandHome(context.environment, tokenFile), "which " + namedBy + " names");
    return request(context, role, {{"Action", "AssumeRoleWithWebIdentity"}, {"WebIdentityToken", token}}, nullptr);
}

} // namespace storage::clients::s3
