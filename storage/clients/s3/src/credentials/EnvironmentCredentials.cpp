#include "EnvironmentCredentials.hpp"

#include "CredentialsFailure.hpp"

#include <utility>

namespace storage::clients::s3
{

EnvironmentCredentials::EnvironmentCredentials(Environment environment)
    : m_environment(std::move(environment))
{
}

CredentialsProvider::LoadResult EnvironmentCredentials::load()
{
    const std::string& keyId = m_environment["AWS_ACCESS_KEY_ID"];
    const std::string& secret = m_environment["AWS_SECRET_ACCESS_KEY"];
    if (keyId.empty() && secret.empty())
    {
        return NoCredentials{"AWS_ACCESS_KEY_ID is not set"};
    }
    if (keyId.empty() || secret.empty())
    {
        throw invalidCredentials("AWS_ACCESS_KEY_ID and AWS_SECRET_ACCESS_KEY: only one is set; set both or neither");
    }
    return IssuedCredentials{{keyId, secret, m_environment["AWS_SESSION_TOKEN"]}};
}

} // namespace storage::clients::s3
