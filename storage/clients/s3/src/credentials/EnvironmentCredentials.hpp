#pragma once

#include "CredentialsProvider.hpp"
#include "Environment.hpp"

namespace storage::clients::s3
{

/// Credentials from environment variables.
class EnvironmentCredentials : public CredentialsProvider
{
public:
    explicit EnvironmentCredentials(Environment environment);

    LoadResult load() override;

private:
    const Environment m_environment;
};

} // namespace storage::clients::s3
