#pragma once

#include <chrono>
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

    /// When the bearer token expires; the maximum: never, or not known. The signature of `sas` has its own time.
    std::chrono::system_clock::time_point expires = std::chrono::system_clock::time_point::max();

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

/// Credentials from the environment; the first of these that is set is used:
///
/// 1. AZURE_STORAGE_CONNECTION_STRING, with AccountKey or SharedAccessSignature
/// 2. AZURE_STORAGE_KEY
/// 3. AZURE_STORAGE_SAS_TOKEN
///
/// What is set and cannot be used is a failure, also a connection string or an AZURE_STORAGE_ACCOUNT for another
/// account. Reads the variables now; no other thread may change the environment during the call. Failures are thrown
/// at the first use, and again at each later one.
/// @param account      the storage account that requests are for
/// @param authorities  PEM file of the certificate authorities for services that are asked; empty: the system's
/// @param interrupted  as in AzureSettings; ends waiting for a service
std::shared_ptr<CredentialsSource> defaultCredentials(const std::string& account,
    const std::filesystem::path& authorities = {}, const std::function<bool()>& interrupted = {});

} // namespace storage::clients::azure
