#pragma once

#include "CredentialsProvider.hpp"
#include "Environment.hpp"
#include "MetadataService.hpp"

#include <string>

namespace storage::clients::s3
{

/// The metadata service of a virtual machine, version 2: a token first, then the name of the machine's role, then the
/// role's credentials.
class MachineCredentials : public CredentialsProvider
{
public:
    explicit MachineCredentials(const Environment& environment);

    /// That nobody answers is no failure before the service has answered once: most machines have none.
    LoadResult load() override;

private:
    LoadResult ask();

    const bool m_isDisabled;
    const std::string m_endpoint;
    MetadataService m_service;
    bool m_hasAnswered = false;
};

} // namespace storage::clients::s3
