#pragma once

#include "CredentialsProvider.hpp"
#include "ProviderContext.hpp"
#include "SharedConfig.hpp"

namespace storage::clients::s3
{

/// Exchange the token that a login to the portal has left in ~/.aws/sso/cache for the credentials of the profile's
/// role. The token is read at each call. It is not renewed: when it has expired, people log in again.
///
/// @param profile  has sso_session, or sso_start_url
/// @throws cloudprovider::InvalidCredentialsException when a setting or the token is missing, or the portal refuses it;
///         TransientException when the portal is busy or does not respond
IssuedCredentials loginCredentials(
    const ProviderContext& context, const SharedConfig& config, const SharedSection& profile);

} // namespace storage::clients::s3
