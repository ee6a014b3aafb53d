#include "CredentialsService.hpp"

#include "CredentialsDocument.hpp"
#include "CredentialsFailure.hpp"

#include <utility>

namespace storage::clients::s3
{

namespace
{

HttpTimeouts timeoutsFor(const CredentialsService::Settings& settings)
{
    HttpTimeouts timeouts;
    timeouts.connect = settings.connect.count() == 0 ? timeouts.connect : settings.connect;
    return timeouts;
}

} // namespace

CredentialsService::CredentialsService(Settings settings)
    : m_settings(std::move(settings))
    , m_client({timeoutsFor(m_settings), m_settings.authorities, m_settings.interrupted})
{
}

HttpResponse CredentialsService::send(HttpRequest request)
{
    request.deadline = m_settings.deadline;
    request.bypassProxy = m_settings.bypassProxy;
    HttpResponse response = m_client.perform(request);
    if (response.status == 429 || response.status >= 500)
    {
        throw credentialsUnavailable(name() + " returned status " + std::to_string(response.status));
    }
    return response;
}

IssuedCredentials CredentialsService::read(
    const HttpResponse& response, IssuedCredentials (*parse)(const std::string& text)) const
{
    if (response.status != 200)
    {
        throw invalidCredentials(name() + " returned no credentials: status " + std::to_string(response.status));
    }
    try
    {
        return parse(response.body);
    }
    catch (const CredentialsDocumentError& fault)
    {
        throw invalidCredentials("the response of " + name() + " is not a credentials document: " + fault.what());
    }
}

void CredentialsService::fail(const HttpFailure& failure) const
{
    if (failure.isTransient())
    {
        throw credentialsUnavailable(describe(failure));
    }
    throw invalidCredentials(describe(failure));
}

std::string CredentialsService::describe(const HttpFailure& failure) const
{
    const bool isUntrusted = failure.kind() == HttpFailure::Kind::Certificate;
    return name() + " does not respond: " + failure.what() +
           (isUntrusted ? "; if it has its own certificate authority, name the PEM file in AWS_CA_BUNDLE" : "");
}

} // namespace storage::clients::s3
