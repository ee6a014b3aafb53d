#include "Requester.hpp"

#include "signing/Authorizer.hpp"

#include <storage/clients/common/KeyRules.hpp>
#include <storage/clients/credentials/ServiceAddress.hpp>
#include <storage/clients/http/Hashing.hpp>
#include <storage/clients/http/ResponseFields.hpp>
#include <storage/cloudprovider/CloudExceptions.hpp>

#include <fmt/format.h>

#include <algorithm>
#include <ctime>

namespace storage::clients::azure
{

Requester::Requester(const AzureSettings& settings)
    : m_credentials(settings.credentials
                        ? settings.credentials
                        : defaultCredentials(settings.account, settings.authorities, settings.interrupted))
    , m_http({settings.timeouts, settings.authorities, settings.interrupted})
    , m_timeouts(settings.timeouts)
    , m_address(settings)
    , m_isPrivate(m_address.isEncrypted() || isLoopback(m_address.host()))
{
}

std::string Requester::tagIn(const AzureRequest& request, const HttpResponse& response) const
{
    const std::string* const field = response.headers.find("ETag");
    std::string tag = field == nullptr ? "" : unquotedTag(*field);
    if (tag.empty())
    {
        throwMalformedResponse(contextOf(request), response, "the response lacks the entity tag");
    }
    return tag;
}

FailureContext Requester::contextOf(const AzureRequest& request) const
{
    return {
        {std::string(name(request.operation)) + (request.key.empty() ? "" : fmt::format(" of {}", quoted(request.key))),
            m_address.origin(), "x-ms-request-id", m_wasReached, hasCondition(request.headers), m_isAnonymous},
        m_address.container()};
}

HttpResponse Requester::send(
    const AzureRequest& request, std::initializer_list<int> accepted, const HttpClient::Receiver& receiver)
{
    try
    {
        for (bool hasRefreshed = false;; hasRefreshed = true)
        {
            const Credentials credentials = m_credentials->credentials();
            if (!m_isPrivate && !(credentials.sas.empty() && credentials.bearerToken.empty()))
            {
                throw cloudprovider::InvalidCredentialsException("Invalid credentials",
                    "a token or a signature is sent only over https, or to this machine: whoever reads it can use it; "
                    "change the endpoint " +
                        m_address.origin());
            }
            HttpResponse response = sendOnce(request, credentials, receiver);
            if (response.status / 100 == 2 || std::ranges::find(accepted, response.status) != accepted.end())
            {
                return response;
            }
            if (hasRefreshed || response.status != 401 || credentials.bearerToken.empty())
            {
                throwErrorResponse(contextOf(request), response);
            }
            m_credentials->refresh();
        }
    }
    catch (const HttpFailure& failure)
    {
        throwNoResponse(contextOf(request), failure);
    }
}

HttpResponse Requester::sendOnce(
    const AzureRequest& request, const Credentials& credentials, const HttpClient::Receiver& receiver)
{
    const SigningContext context{m_address.account(), m_address.path(request.key), request.query, std::time(nullptr)};
    HttpRequest http{request.method,
        m_address.origin() + context.path +
            (request.query.empty() ? "" : fmt::format("?{}", encodeQuery(request.query))),
        request.headers, request.body};
    http.bypassProxy = m_isPrivate && !m_address.isEncrypted();
    if (request.serverSideWork)
    {
        allowServerSideWork(http, m_timeouts, request.serverSideBytes);
    }
    if (!request.source.empty())
    {
        addSource(http.headers, m_address.origin() + m_address.path(request.source), m_address.resource(request.source),
            context.time, credentials);
    }
    if (request.body != nullptr)
    {
        http.headers.add("Content-MD5", toBase64(md5(*request.body)));
    }
    authorize(http, context, credentials);
    m_isAnonymous = credentials.isAnonymous();
    HttpResponse response = m_http.perform(http, receiver);
    m_wasReached = true;
    return response;
}

} // namespace storage::clients::azure
