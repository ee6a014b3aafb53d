#pragma once

#include <foundation/Export.hpp>
#include <foundation/storage/provider/IProvider.hpp>
#include <foundation/storage/provider/StorageIRI.hpp>

#include <map>
#include <memory>
#include <shared_mutex>

namespace foundation::storage::provider
{

/// Find the provider that serves an IRI, by the IRI's scheme and authority. The case of the scheme and of the host does
/// not matter.
///
/// Safe for concurrent calls on one instance. The registry shares ownership of a provider until it is unregistered; the
/// pointers that it returns keep the provider alive. Every operation throws Exception with ErrorCode::InvalidLocation
/// if its IRI does not resolve.
class FOUNDATION_EXPORT ProviderRegistry
{
public:
    ProviderRegistry();
    ~ProviderRegistry();

    ProviderRegistry(const ProviderRegistry&) = delete;
    ProviderRegistry& operator=(const ProviderRegistry&) = delete;

    /// Register `provider` for all IRIs with the scheme and authority of `root`. The path of `root` is ignored.
    ///
    /// @param provider  not null
    /// @throws Exception with ErrorCode::AlreadyExists if another provider is registered for them; it stays registered
    void registerProvider(const StorageIRI& root, std::shared_ptr<const IProvider> provider);

    /// Unregister the provider for the scheme and authority of `root`.
    ///
    /// @return whether one was registered; that none was is not an error
    bool unregisterProvider(const StorageIRI& root);

    /// Get the provider that serves `iri`, or null if there is none.
    std::shared_ptr<const IProvider> find(const StorageIRI& iri) const;

    /// Get the provider that serves `iri`.
    ///
    /// @throws Exception with ErrorCode::NotFound and `iri` if there is none
    std::shared_ptr<const IProvider> resolve(const StorageIRI& iri) const;

private:
    mutable std::shared_mutex m_mutex; // taken alone; never held while a provider is called
    std::map<StorageIRI, std::shared_ptr<const IProvider>> m_providers; // guarded by m_mutex; by scheme://authority
};

} // namespace foundation::storage::provider
