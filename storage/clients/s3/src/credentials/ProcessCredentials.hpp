#pragma once

#include "CredentialsProvider.hpp"
#include "ProviderContext.hpp"
#include "SharedConfig.hpp"

namespace storage::clients::s3
{

/// Run the program in the profile's credential_process, which prints credentials, for up to a minute.
///
/// @throws cloudprovider::InvalidCredentialsException when it cannot be started, fails, takes too long or prints
///         something else, with what it wrote to standard error; TransientException when this process is interrupted
IssuedCredentials processCredentials(const ProviderContext& context, const SharedSection& profile);

} // namespace storage::clients::s3
