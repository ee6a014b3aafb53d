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

    /// As long as the service has never responded, it is not a failure that it cannot be reached: most machines have
    /// none.
    LoadResult load() override;

private:
    LoadResult ask();

    const bool m_isDisabled;
    const std::string m_endpoint;
    MetadataService m_service;
    bool m_hasResponded = false;
};

} // namespace storage::clients::s3
