#pragma once

#include "CredentialsPlace.hpp"
#include "Environment.hpp"

namespace storage::clients::s3
{

/// Credentials in the variables themselves.
class EnvironmentCredentials : public CredentialsPlace
{
public:
    explicit EnvironmentCredentials(Environment environment);

    Finding look() override;

private:
    const Environment m_environment;
};

} // namespace storage::clients::s3
