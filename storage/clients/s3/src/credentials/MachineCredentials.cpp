#include "MachineCredentials.hpp"

#include "CredentialsDocument.hpp"
#include "CredentialsFailure.hpp"

#include <boost/algorithm/string/predicate.hpp>

#include <string_view>

namespace storage::clients::s3
{

namespace
{

using namespace std::chrono_literals;

constexpr auto deadline = 2s;
constexpr auto connectDeadline = 1s;        // where there is no such service, nothing responds
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

} // namespace

MachineCredentials::MachineCredentials(const ProviderContext& context)
    : m_isDisabled(boost::algorithm::iequals(context.environment["AWS_EC2_METADATA_DISABLED"], "true"))
    , m_endpoint(endpointOf(context.environment))
    , m_service(
          {"the machine's metadata service", deadline, context.authorities, context.interrupted, connectDeadline, true})
{
}

CredentialsProvider::LoadResult MachineCredentials::load()
{
    if (m_isDisabled)
    {
        return NoCredentials{"AWS_EC2_METADATA_DISABLED is set"};
    }
    try
    {
        return request();
    }
    catch (const HttpFailure& failure)
    {
        if (failure.kind() == HttpFailure::Kind::Unreachable && !m_hasResponded)
        {
            return NoCredentials{m_service.describe(failure)};
        }
        m_service.fail(failure);
    }
}

CredentialsProvider::LoadResult MachineCredentials::request()
{
    HttpHeaders lifetime;
    lifetime.add("X-aws-ec2-metadata-token-ttl-seconds", tokenLifetime);
    const HttpResponse token = send("PUT", "/latest/api/token", lifetime);
    m_hasResponded = true;
    if (token.status != 200)
    {
        return NoCredentials{m_service.name() + " returned no token: status " + std::to_string(token.status)};
    }
    HttpHeaders headers;
    headers.add("X-aws-ec2-metadata-token", firstLine(token.body));
    const HttpResponse role = send("GET", roles, headers);
    if (role.status == 404)
    {
        return NoCredentials{m_service.name() + " has no role for this machine"};
    }
    const std::string name = firstLine(role.body);
    if (role.status != 200 || !isRoleName(name))
    {
        throw invalidCredentials(m_service.name() + " returned no role: status " + std::to_string(role.status));
    }
    return m_service.read(send("GET", roles + name, headers), readCredentialsDocument);
}

HttpResponse MachineCredentials::send(const char* method, const std::string& path, const HttpHeaders& headers)
{
    return m_service.send({method, m_endpoint + path, headers});
}

} // namespace storage::clients::s3
