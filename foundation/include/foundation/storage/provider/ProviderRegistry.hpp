#pragma once

#include <foundation/Export.hpp>
#include <foundation/storage/provider/IProvider.hpp>
#include <foundation/storage/provider/StorageIRI.hpp>

#include <map>
#include <memory>
#include <shared_mutex>

namespace foundation::storage::provider
{

/// Tell which provider serves an IRI, by its scheme and authority. The host's spelling does not matter, nor does its
/// case.
///
/// Safe for concurrent calls on one instance. Providers are shared with the registry until they are unregistered;
/// a provider that was found stays valid as long as the finder holds it.
class FOUNDATION_EXPORT ProviderRegistry
{
public:
    ProviderRegistry();
    ~ProviderRegistry();

    ProviderRegistry(const ProviderRegistry&) = delete;
    ProviderRegistry& operator=(const ProviderRegistry&) = delete;

    /// Let `provider` serve everything under the scheme and authority of `root`, whose path is not looked at.
    ///
    /// @param provider  not null
    /// @throws Exception with ErrorCode::AlreadyExists if somebody serves them; the former provider stays. With
    ///         ErrorCode::InvalidLocation if `root` does not resolve.
    void registerProvider(const StorageIRI& root, std::shared_ptr<const IProvider> provider);

    /// Forget who serves the scheme and authority of `root`. That nobody does is no failure.
    ///
    /// @return whether anybody did
    bool unregisterProvider(const StorageIRI& root);

    /// Give the provider that serves `iri`, or null if nobody does.
    std::shared_ptr<const IProvider> find(const StorageIRI& iri) const;

    /// Give the provider that serves `iri`.
    ///
    /// @throws Exception with ErrorCode::NotFound, naming `iri`, if nobody does
    std::shared_ptr<const IProvider> resolve(const StorageIRI& iri) const;

private:
    mutable std::shared_mutex m_mutex;                                  // taken alone; no provider is called under it
    std::map<StorageIRI, std::shared_ptr<const IProvider>> m_providers; // guarded by m_mutex; by scheme://authority
};

} // namespace foundation::storage::provider
