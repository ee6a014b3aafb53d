#include "CredentialsFailure.hpp"

namespace storage::clients::s3
{

cloudprovider::InvalidCredentialsException invalidCredentials(const std::string& detail)
{
    return cloudprovider::InvalidCredentialsException("Credentials missing or unusable", detail);
}

TransientException credentialsUnavailable(const std::string& detail)
{
    return TransientException("Credentials temporarily unavailable", detail);
}

} // namespace storage::clients::s3
