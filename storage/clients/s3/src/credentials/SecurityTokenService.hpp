#pragma once

#include "CredentialsSources.hpp"

#include <string>

namespace storage::clients::s3
{

/// A role whose credentials the security token service shall issue.
struct RoleRequest
{
    std::string arn;
    std::string namedBy;          ///< what names the role, for messages
    std::string sessionName = {}; ///< shown in the account's records; empty: one of ours
    std::string externalId = {};  ///< empty: none
    std::string duration = {};    ///< in seconds; empty: the service's default
};

/// Let the security token service issue the credentials of a role. The service is that of the configured region.
///
/// @param caller  who may assume the role
/// @throws cloudprovider::InvalidCredentialsException when the service refuses that; TransientException when it is busy
///         or does not respond
IssuedCredentials assumeRole(const SourceContext& context, const RoleRequest& role, const Credentials& caller);

/// The same, where a token of another identity provider says who the caller is.
///
/// @param tokenFile  read at each call, because the token is short-lived and its file is replaced
/// @param namedBy    what names the file, for messages
/// @throws as above, and when the file cannot be read
IssuedCredentials assumeRoleWithWebIdentity(
    const SourceContext& context, const RoleRequest& role, const std::string& tokenFile, const std::string& namedBy);

} // namespace storage::clients::s3
