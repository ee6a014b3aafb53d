#pragma once

#include "Environment.hpp"

#include <storage/clients/s3/Credentials.hpp>

#include <chrono>
#include <filesystem>
#include <functional>
#include <optional>
#include <string>
#include <variant>

namespace storage::clients::s3
{

class SharedConfig;
struct SharedSection;

/// What the sources of one chain share: the parameters of defaultCredentials(), and the variables.
struct SourceContext
{
    Environment environment;
    std::string profile = {};
    std::filesystem::path authorities = {};
    std::function<bool()> interrupted = {};
};

struct IssuedCredentials
{
    Credentials credentials;
    /// Nothing: they do not expire. In seconds: nanoseconds end in 2262, and some services send a time in 9999.
    std::optional<std::chrono::sys_seconds> expiry = {};
};

/// Why a source has no credentials, for people: "AWS_ACCESS_KEY_ID is not set".
struct NoCredentials
{
    std::string reason;
};

/// What a source has now. NoCredentials: it is not set up, so the next source may have some.
using LoadResult = std::variant<IssuedCredentials, NoCredentials>;

/// Loads what a source has now. Used by one thread at a time.
///
/// All sources below throw cloudprovider::InvalidCredentialsException when they are set up wrongly, because the next
/// source's credentials would be those of another identity; TransientException when a service does not respond now.
using CredentialsLoader = std::function<LoadResult()>;

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

/// All of the above in this order, the first two only when no profile is given. The first source that has credentials
/// is used. If none has, the result has the reasons of all. Until there have been credentials, a service that cannot be
/// connected to is not a TransientException: a wrong address is more likely than an outage.
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
