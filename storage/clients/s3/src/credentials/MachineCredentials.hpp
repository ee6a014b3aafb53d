#pragma once

#include "CredentialsProvider.hpp"
#include "Environment.hpp"
#include "MetadataService.hpp"

#include <string>

namespace storage::clients::s3
{

/// Credentials from the metadata service of a virtual machine, version 2: requests a token, then the name of the
/// machine's role, then the role's credentials.
class MachineCredentials : public CredentialsProvider
{
public:
    explicit MachineCredentials(const Environment& environment);

    /// If the service is unreachable and has never responded, that is not a failure: most machines have no such
    /// service.
    LoadResult load() override;

private:
    LoadResult request();

    const bool m_isDisabled;
    const std::string m_endpoint;
    MetadataService m_service;
    bool m_hasResponded = false;
};

} // namespace storage::clients::s3
