#pragma once

#include "CredentialsProvider.hpp"
#include "ProviderContext.hpp"

namespace storage::clients::s3
{

/// Credentials of the role that variables name, for the holder of the token in a file.
class WebIdentityCredentials : public CredentialsProvider
{
public:
    explicit WebIdentityCredentials(ProviderContext context);

    LoadResult load() override;

private:
    const ProviderContext m_context;
};

} // namespace storage::clients::s3
