#pragma once

#include "CredentialsProvider.hpp"

#include "http/HttpClient.hpp"

#include <chrono>
#include <string>

namespace storage::clients::s3
{

/// A small server beside the program, in its container's host or its machine, that hands out credentials.
///
/// Always asked directly, never through a proxy. Errors name the service and have nothing of what it answered.
class MetadataService
{
public:
    /// @param name      for errors
    /// @param deadline  for each request; a service that is there answers within milliseconds
    MetadataService(std::string name, std::chrono::milliseconds deadline);

    /// @return the answer, whatever its status, but for those that say "try again later"
    /// @throws HttpFailure when there is none
    /// @throws TransientException for a status of 429 and from 500
    HttpResponse send(const std::string& method, const std::string& url, const HttpHeaders& headers);

    /// @throws cloudprovider::InvalidCredentialsException when the answer refuses them or cannot be understood
    IssuedCredentials read(const HttpResponse& answer) const;

    const std::string& name() const noexcept { return m_name; }

private:
    const std::string m_name;
    const std::chrono::milliseconds m_deadline;
    HttpClient m_client;
};

} // namespace storage::clients::s3
