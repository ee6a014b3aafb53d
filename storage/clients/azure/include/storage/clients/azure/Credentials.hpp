#pragma once

#include <filesystem>
#include <functional>
#include <memory>
#include <string>

namespace storage::clients::azure
{

/// What requests are authorised with. A plain value. At most one of the first three is set.
struct Credentials
{
    std::string accountKey = {};  ///< in base64, as the service shows it; never printed
    std::string sas = {};         ///< a shared access signature: a query without "?", percent-encoded; never printed
    std::string bearerToken = {}; ///< of an identity; never printed

    /// Whether requests are sent as they are, which is enough to read a public container.
    bool isAnonymous() const noexcept { return accountKey.empty() && sas.empty() && bearerToken.empty(); }
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
    /// May block for some seconds while it loads them. If loading fails while the old ones are still valid, it logs the
    /// failure and returns the old ones.
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

/// Credentials from the sources that the store's own tools use. The first source that has some is used.
///
/// 1. the variable AZURE_STORAGE_CONNECTION_STRING, else AZURE_STORAGE_KEY, else AZURE_STORAGE_SAS_TOKEN. A connection
///    string has AccountKey or SharedAccessSignature. Only these and AccountName are read from it, not its endpoints
/// 2. the application AZURE_CLIENT_ID of AZURE_TENANT_ID, with AZURE_CLIENT_SECRET, else with the token in the file
///    AZURE_FEDERATED_TOKEN_FILE
/// 3. an app's identity endpoint (IDENTITY_ENDPOINT and IDENTITY_HEADER)
/// 4. connection_string, key or sas_token in the section [storage] of the file `config` of the command line `az`; those
///    for another account are not used
/// 5. the user who has logged in with `az` and the tenant of the default subscription: the token in the token cache,
///    or a new one. The cache must not be encrypted, and is not written
/// 6. the machine's metadata service (AZURE_POD_IDENTITY_AUTHORITY_HOST); skipped when AZURE_METADATA_DISABLED is true
///
/// 3 and 6 request a token for AZURE_CLIENT_ID when it is set; 4 and 5 are skipped then. The files of 4 and 5 are in
/// the folder AZURE_CONFIG_DIR, else ~/.azure. Tokens of 2 and 5 are requested from AZURE_AUTHORITY_HOST, else from
/// login.microsoftonline.com, or from the host of the login.
///
/// A misconfigured source is an error and is not skipped: the next source's credentials would be those of another
/// identity. Examples are a connection string or AZURE_STORAGE_ACCOUNT for another account, a secret without its
/// application, a certificate (AZURE_CLIENT_CERTIFICATE_PATH), a file that cannot be read, an application that is
/// refused, a login that has expired, or that of an application, an encrypted token cache, and a service that cannot be
/// connected to and has never issued credentials. If there are no credentials, that result is cached for a minute.
/// Tokens are replaced five minutes before they expire. Secrets and tokens are sent to these services over https, or on
/// this machine.
///
/// Reads the variables now; no other thread may change the environment during the call. Reads files and uses services
/// at the first use.
/// @param account      the storage account that requests are for
/// @param authorities  PEM file of the certificate authorities for these services; empty: the system's
/// @param interrupted  as in AzureSettings; ends waiting for a service
std::shared_ptr<CredentialsSource> defaultCredentials(const std::string& account,
    const std::filesystem::path& authorities = {}, const std::function<bool()>& interrupted = {});

} // namespace storage::clients::azure
