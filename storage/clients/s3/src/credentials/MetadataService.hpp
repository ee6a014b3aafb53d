#pragma once

#include "CredentialsProvider.hpp"

#include <storage/clients/http/HttpClient.hpp>

#include <chrono>
#include <string>

namespace storage::clients::s3
{

/// A local server that provides credentials to programs in a container or on a virtual machine.
///
/// Requests never go through a proxy. Errors name the service and contain nothing of its responses.
class MetadataService
{
public:
    /// @param name      for errors
    /// @param deadline  for each request; a service that exists responds within milliseconds
    MetadataService(std::string name, std::chrono::milliseconds deadline);

    /// Send a request without a body.
    ///
    /// @return the response, of any status not mentioned below
    /// @throws HttpFailure when there is no response
    /// @throws TransientException for status 429, and 500 and above
    HttpResponse send(const std::string& method, const std::string& url, const HttpHeaders& headers);

    /// Parse the credentials in a response.
    ///
    /// @throws cloudprovider::InvalidCredentialsException when the response is a refusal or malformed
    IssuedCredentials read(const HttpResponse& response) const;

    const std::string& name() const noexcept { return m_name; }

private:
    const std::string m_name;
    const std::chrono::milliseconds m_deadline;
    HttpClient m_client;
};

} // namespace storage::clients::s3
