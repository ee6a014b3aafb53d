#pragma once

#include "CredentialsProvider.hpp"
#include "CredentialsService.hpp"
#include "ProviderContext.hpp"

#include <string>

namespace storage::clients::s3
{

/// Credentials from the metadata service of a virtual machine, version 2: requests a token, then the name of the
/// machine's role, then the role's credentials.
class MachineCredentials : public CredentialsProvider
{
public:
    explicit MachineCredentials(const ProviderContext& context);

    /// If the service is unreachable and has never responded, that is not a failure: most machines have no such
    /// service.
    LoadResult load() override;

private:
    LoadResult request();
    HttpResponse send(const char* method, const std::string& path, const HttpHeaders& headers);

    const bool m_isDisabled;
    const std::string m_endpoint;
    CredentialsService m_service;
    bool m_hasResponded = false;
};

} // namespace storage::clients::s3
