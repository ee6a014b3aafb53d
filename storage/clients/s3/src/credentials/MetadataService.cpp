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
    , m_client({.timeouts = {.connect = 1s}}) // where there is no such service, nothing answers at all
{
}

HttpResponse MetadataService::send(const std::string& method, const std::string& url, const HttpHeaders& headers)
{
    HttpResponse answer = m_client.perform(
        {.method = method, .url = url, .headers = headers, .deadline = m_deadline, .bypassProxy = true});
    if (answer.status == 429 || answer.status >= 500)
    {
        throw credentialsUnavailable(m_name + " answers with status " + std::to_string(answer.status));
    }
    return answer;
}

IssuedCredentials MetadataService::read(const HttpResponse& answer) const
{
    if (answer.status != 200)
    {
        throw invalidCredentials(m_name + " gives no credentials: status " + std::to_string(answer.status));
    }
    try
    {
        return readCredentialsDocument(answer.body);
    }
    catch (const CredentialsDocumentError& fault)
    {
        throw invalidCredentials("what " + m_name + " answers is no document of credentials: " + fault.what());
    }
}

} // namespace storage::clients::s3
