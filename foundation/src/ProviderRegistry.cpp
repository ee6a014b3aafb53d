#include <foundation/storage/provider/ProviderRegistry.hpp>

#include <mutex>
#include <utility>

namespace foundation::storage::provider
{

namespace
{

StorageIRI rootOf(const StorageIRI& iri)
{
    const StorageIRI resolved = iri.getResolvedIRI();
    return StorageIRI(resolved.getScheme() + u"://" + resolved.getAuthority());
}

} // namespace

ProviderRegistry::ProviderRegistry() = default;
ProviderRegistry::~ProviderRegistry() = default;

void ProviderRegistry::registerProvider(const StorageIRI& root, std::shared_ptr<const IProvider> provider)
{
    const StorageIRI key = rootOf(root);
    const std::unique_lock lock(m_mutex);
    if (!m_providers.try_emplace(key, std::move(provider)).second)
    {
        throw Exception(ErrorCode(ErrorCode::AlreadyExists, "another provider serves this scheme and authority"), root);
    }
}

bool ProviderRegistry::unregisterProvider(const StorageIRI& root)
{
    const StorageIRI key = rootOf(root);
    std::shared_ptr<const IProvider> removed; // destroyed without the lock: its destructor may call the registry
    const std::unique_lock lock(m_mutex);
    const auto found = m_providers.find(key);
    if (found == m_providers.end())
    {
        return false;
    }
    removed = std::move(found->second);
    m_providers.erase(found);
    return true;
}

std::shared_ptr<const IProvider> ProviderRegistry::find(const StorageIRI& iri) const
{
    const StorageIRI key = rootOf(iri);
    const std::shared_lock lock(m_mutex);
    const auto found = m_providers.find(key);
    return found == m_providers.end() ? nullptr : found->second;
}

std::shared_ptr<const IProvider> ProviderRegistry::resolve(const StorageIRI& iri) const
{
    if (auto provider = find(iri))
    {
        return provider;
    }
    throw Exception(ErrorCode(ErrorCode::NotFound, "no provider serves \"" + rootOf(iri).toUtf8() + "\""), iri);
}

} // namespace foundation::storage::provider
