#pragma once

#include <storage/clients/common/TransientException.hpp>
#include <storage/cloudprovider/CloudExceptions.hpp>

#include <string>

namespace storage::clients::s3
{

/// @param detail  what is wrong, where, and the remedy; never a secret or a line that may contain one
cloudprovider::InvalidCredentialsException invalidCredentials(const std::string& detail);

/// @param detail  as above
TransientException credentialsUnavailable(const std::string& detail);

} // namespace storage::clients::s3
