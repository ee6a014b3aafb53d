#pragma once

#include <storage/clients/credentials/CredentialsLoader.hpp>
#include <storage/clients/s3/Credentials.hpp>

#include <optional>
#include <string>

namespace storage::clients::s3
{

class SharedConfig;
struct SharedSection;

/// What the sources of one chain share: the parameters of defaultCredentials(), and the variables.
struct SourceContext : ServiceContext
{
    std::string profile = {};
};

using IssuedCredentials = Issued<Credentials>;
using LoadResult = LoadResultOf<Credentials>;
using CredentialsLoader = LoaderOf<Credentials>;

/// Refuse control characters, see RefreshingCredentials.
void checkUsable(const Credentials& credentials);

// All sources below throw what a loader throws.

/// The keys in variables.
LoadResult environmentCredentials(const SourceContext& context);

/// The role that variables name, for the holder of the token in a file.
LoadResult webIdentityCredentials(const SourceContext& context);

/// One profile of the shared files. The first of these that it has is used: a role, keys, a login, a program.
///
/// It is a failure if a profile that was chosen by name is in neither file or has no credentials. If "default" was not
/// chosen by name, that is not a failure.
LoadResult profileCredentials(const SourceContext& context);

/// The endpoint that a container's host provides.
LoadResult containerCredentials(const SourceContext& context);

/// The URL of that endpoint; nothing when no variable names one.
///
/// @throws cloudprovider::InvalidCredentialsException for a URL with which the token or the credentials would cross a
///         network unencrypted
std::optional<std::string> containerEndpoint(const Environment& environment);

/// The metadata service of a virtual machine, version 2: requests a token, then the name of the machine's role, then
/// the role's credentials.
///
/// @param hasResponded  set when the service responds. If it is unreachable and never has, that is not a failure: most
///                      machines have no such service.
LoadResult machineCredentials(const SourceContext& context, bool& hasResponded);

/// The first of the above in this order that has credentials; the first two only when no profile is given.
CredentialsLoader credentialsChain(SourceContext context);

/// Exchange the token that a login to the portal has left in ~/.aws/sso/cache for the credentials of the profile's
/// role. The file is read at each call. If the portal reports that the token has expired, it is renewed, if possible,
/// and written back for the store's own tools.
///
/// @param profile  has sso_session, or sso_start_url
IssuedCredentials loginCredentials(
    const SourceContext& context, const SharedConfig& config, const SharedSection& profile);

/// Run the program in the profile's credential_process, which prints credentials, for up to a minute. A failure
/// contains what it wrote to standard error. An interrupt of this process is a TransientException.
IssuedCredentials processCredentials(const SourceContext& context, const SharedSection& profile);

} // namespace storage::clients::s3
