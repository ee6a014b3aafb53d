#pragma once

#include "CredentialsProvider.hpp"
#include "ProviderContext.hpp"

namespace storage::clients::s3
{

/// Credentials from one profile of the shared files. The first of these that it has is used: a role, keys, a login, a
/// program.
class ProfileCredentials : public CredentialsProvider
{
public:
    explicit ProfileCredentials(ProviderContext context);

    /// It is a failure if a profile that was chosen by name is in neither file. A missing "default" is not a failure.
    LoadResult load() override;

private:
    const ProviderContext m_context;
};

} // namespace storage::clients::s3
