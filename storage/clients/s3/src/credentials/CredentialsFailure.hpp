#pragma once

#include <storage/clients/common/TransientException.hpp>
#include <storage/cloudprovider/CloudExceptions.hpp>

#include <string>

namespace storage::clients::s3
{

/// @param detail  what is wrong, where, and what to do about it; never a secret nor a line that may hold one
cloudprovider::InvalidCredentialsException invalidCredentials(const std::string& detail);

/// @param detail  as above
TransientException credentialsUnavailable(const std::string& detail);

} // namespace storage::clients::s3
