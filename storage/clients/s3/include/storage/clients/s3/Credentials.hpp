#pragma once

#include <filesystem>
#include <functional>
#include <memory>
#include <string>

namespace storage::clients::s3
{

/// The identity that requests are signed with. A plain value.
struct Credentials
{
    std::string keyId;        ///< empty: anonymous, requests are not signed
    std::string secret;       ///< never printed
    std::string sessionToken; ///< of temporary credentials; empty for others

    bool isAnonymous() const noexcept { return keyId.empty(); }
};

/// Provides the credentials that are valid now. Safe for concurrent calls on one instance.
class CredentialsSource
{
public:
    CredentialsSource() = default;
    CredentialsSource(const CredentialsSource&) = delete;
    CredentialsSource& operator=(const CredentialsSource&) = delete;
    virtual ~CredentialsSource() = default;

    /// Get credentials that are valid now. Loads new ones if the current ones are about to expire.
    ///
    /// May block for some seconds while it loads them, for a minute if a program provides them. If loading fails while
    /// the old ones are still valid, it logs the failure and returns the old ones.
    /// @throws cloudprovider::InvalidCredentialsException when there are none, with a detail that names the sources
    ///         searched; TransientException when the source that has them does not respond now
    virtual Credentials credentials() = 0;

    /// Drop the current credentials, because the store has reported them as expired. The next call loads new ones,
    /// unless the last load was a few seconds ago, so that several callers that were refused at the same time load only
    /// once.
    virtual void refresh() {}
};

/// Credentials that never change.
std::shared_ptr<CredentialsSource> fixedCredentials(Credentials credentials);

/// No credentials: requests are not signed, which is enough for a public bucket.
std::shared_ptr<CredentialsSource> anonymousCredentials();

/// Credentials from the sources that the store's own tools use. The first source that has some is used.
///
/// 1. the variables AWS_ACCESS_KEY_ID and AWS_SECRET_ACCESS_KEY, with AWS_SESSION_TOKEN when set
/// 2. the role AWS_ROLE_ARN for the token in the file AWS_WEB_IDENTITY_TOKEN_FILE, with AWS_ROLE_SESSION_NAME when set
/// 3. the profile in the shared files (AWS_SHARED_CREDENTIALS_FILE and AWS_CONFIG_FILE, else ~/.aws/credentials and
///    ~/.aws/config), which has one of these, or else the first one:
///    - role_arn, with external_id, role_session_name and duration_seconds when set, for the credentials of
///      source_profile, those of credential_source (Environment, EcsContainer or Ec2InstanceMetadata), or the token in
///      web_identity_token_file
///    - aws_access_key_id and aws_secret_access_key, with aws_session_token
///    - sso_session, or sso_start_url and sso_region, with sso_account_id and sso_role_name: the role for the token
///      that a login has left in ~/.aws/sso/cache. When it has expired, it is renewed if the file has a refresh token,
///      and the file is replaced.
///    - credential_process: a program, which is started without a shell, has no terminal, and must end within a minute
/// 4. a container's endpoint (AWS_CONTAINER_CREDENTIALS_RELATIVE_URI or AWS_CONTAINER_CREDENTIALS_FULL_URI, with
///    AWS_CONTAINER_AUTHORIZATION_TOKEN or the file AWS_CONTAINER_AUTHORIZATION_TOKEN_FILE)
/// 5. the machine's metadata service, version 2 (AWS_EC2_METADATA_SERVICE_ENDPOINT); skipped when
///    AWS_EC2_METADATA_DISABLED is true
///
/// 1 and 2 are skipped when a profile is given. Roles are requested from the security token service of the default
/// region (us-east-1 if there is none), or of the global endpoint if AWS_STS_REGIONAL_ENDPOINTS is legacy. A configured
/// endpoint, see defaultEndpoint(), replaces that of the services "sts", "sso" and "sso_oidc", which renews logins.
///
/// A misconfigured source is an error and is not skipped: the next source's credentials would be those of another
/// identity. Examples are a key without its secret, a file that cannot be read, a role that is refused, a login that
/// has expired and cannot be renewed, a service that cannot be connected to and has never issued credentials, and a
/// named profile that does not exist, that has no credentials, or that needs a one-time code. If there are no
/// credentials, that result is cached for a minute. Credentials that expire are replaced five minutes before that.
///
/// Reads the variables now; no other thread may change the environment during the call. Reads files, runs programs and
/// uses services at the first use. Programs inherit the environment that the process has then.
/// @param profile      a section of the shared files; empty: AWS_PROFILE, else AWS_DEFAULT_PROFILE, else "default"
/// @param authorities  PEM file of the certificate authorities for these services; empty: the system's
/// @param interrupted  as in S3Settings; ends a running program, too
std::shared_ptr<CredentialsSource> defaultCredentials(const std::string& profile = {},
    const std::filesystem::path& authorities = {}, const std::function<bool()>& interrupted = {});

/// Return the region from the variable AWS_REGION, else from AWS_DEFAULT_REGION, else from the profile in the shared
/// files; empty if none of them names one. No other thread may change the environment during the call.
///
/// @param profile  as above; a profile that does not exist is not an error here
/// @throws cloudprovider::InvalidCredentialsException when a shared file exists and cannot be read
std::string defaultRegion(const std::string& profile = {});

/// Return the endpoint from the variable AWS_ENDPOINT_URL_S3, else from AWS_ENDPOINT_URL, else from endpoint_url below
/// `s3` in the section [services NAME] that `services` of the profile names, else from endpoint_url of the profile;
/// empty if none of them names one, or if AWS_IGNORE_CONFIGURED_ENDPOINT_URLS, else ignore_configured_endpoint_urls of
/// the profile, is true. Otherwise as defaultRegion().
///
/// @throws as above, when there is no such section, and when the endpoint is neither https nor http
std::string defaultEndpoint(const std::string& profile = {});

/// Return the PEM file with certificate authorities that the variable AWS_CA_BUNDLE names, else ca_bundle of the
/// profile; empty if neither does. Otherwise as defaultRegion().
std::filesystem::path defaultAuthorities(const std::string& profile = {});

} // namespace storage::clients::s3
