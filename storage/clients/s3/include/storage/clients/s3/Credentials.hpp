#pragma once

#include <chrono>
#include <memory>
#include <optional>
#include <string>

namespace storage::clients::s3
{

/// Who asks. A plain value.
struct Credentials
{
    std::string keyId;        ///< empty: anonymous, requests are not signed
    std::string secret;       ///< never printed
    std::string sessionToken; ///< of temporary credentials; empty for others

    bool isAnonymous() const noexcept { return keyId.empty(); }
};

/// Answers with the credentials of the moment. Safe for concurrent calls on one instance.
class CredentialsSource
{
public:
    CredentialsSource() = default;
    CredentialsSource(const CredentialsSource&) = delete;
    CredentialsSource& operator=(const CredentialsSource&) = delete;
    virtual ~CredentialsSource() = default;

    /// Credentials that are valid now, fetched anew when those at hand are about to expire.
    ///
    /// May block for some seconds while they are fetched. That the old ones cannot be replaced is logged, and no
    /// failure as long as they are valid.
    /// @throws cloudprovider::InvalidCredentialsException when there are none, with a detail that says where was
    /// looked;
    ///         TransientException when the place that has them does not answer at the moment
    virtual Credentials credentials() = 0;

    /// Forget what is at hand, because the store called it expired. The next call fetches anew, unless the last fetch
    /// was a few seconds ago: so callers that were refused together fetch once.
    virtual void refresh() {}
};

/// Credentials that never change.
std::shared_ptr<CredentialsSource> fixedCredentials(Credentials credentials);

/// No credentials: requests go unsigned, which a public bucket takes.
std::shared_ptr<CredentialsSource> anonymousCredentials();

/// Credentials from where a store's own tools have them, the first that there are.
///
/// 1. the variables AWS_ACCESS_KEY_ID and AWS_SECRET_ACCESS_KEY, with AWS_SESSION_TOKEN when set; not when a profile is
///    given
/// 2. the profile in the shared files (AWS_SHARED_CREDENTIALS_FILE and AWS_CONFIG_FILE, else ~/.aws/credentials and
///    ~/.aws/config): aws_access_key_id and aws_secret_access_key, with aws_session_token
/// 3. a container's endpoint (AWS_CONTAINER_CREDENTIALS_RELATIVE_URI or AWS_CONTAINER_CREDENTIALS_FULL_URI, with
///    AWS_CONTAINER_AUTHORIZATION_TOKEN or the file AWS_CONTAINER_AUTHORIZATION_TOKEN_FILE)
/// 4. the machine's metadata service, version 2 (AWS_EC2_METADATA_SERVICE_ENDPOINT; not when AWS_EC2_METADATA_DISABLED
///    is true)
///
/// Whatever is set up wrongly is a failure and not passed over: half a pair of keys, a file that cannot be read, a
/// named profile that does not exist or gets its keys by a role, a program or a login. That there are none is
/// remembered for a minute. Those of 3 and 4 expire and are fetched anew five minutes before.
///
/// The variables are read here, and no thread may change the environment meanwhile; files and services are asked at the
/// first use.
/// @param profile  a section of the shared files; empty: AWS_PROFILE, else "default"
std::shared_ptr<CredentialsSource> defaultCredentials(const std::string& profile = {});

/// The region that the variables AWS_REGION or AWS_DEFAULT_REGION or the profile in the shared files name; empty when
/// none does. No thread may change the environment meanwhile.
///
/// @param profile  as above; that it does not exist is no failure here
/// @throws cloudprovider::InvalidCredentialsException when a shared file exists and cannot be read
std::string defaultRegion(const std::string& profile = {});

} // namespace storage::clients::s3
