#include "MetadataService.hpp"

#include "CredentialsDocument.hpp"
#include "CredentialsFailure.hpp"

#include <utility>

namespace storage::clients::s3
{

using namespace std::chrono_literals;

MetadataService::MetadataService(std::string name, std::chrono::milliseconds deadline)
    : m_name(std::move(name))
    , m_deadline(deadline)
    , m_client({.timeouts = {.connect = 1s}}) // where there is no such service, nothing responds
{
}

HttpResponse MetadataService::send(const std::string& method, const std::string& url, const HttpHeaders& headers)
{
    HttpResponse response = m_client.perform(
        {.method = method, .url = url, .headers = headers, .deadline = m_deadline, .bypassProxy = true});
    if (response.status == 429 || response.status >= 500)
    {
        throw credentialsUnavailable(m_name + " returned status " + std::to_string(response.status));
    }
    return response;
}

IssuedCredentials MetadataService::read(const HttpResponse& response) const
{
    if (response.status != 200)
    {
        throw invalidCredentials(m_name + " returned no credentials: status " + std::to_string(response.status));
    }
    try
    {
        return readCredentialsDocument(response.body);
    }
    catch (const CredentialsDocumentError& fault)
    {
        throw invalidCredentials("the response of " + m_name + " is not a credentials document: " + fault.what());
    }
}

} // namespace storage::clients::s3
