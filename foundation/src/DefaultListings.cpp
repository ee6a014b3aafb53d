#include "FilteredEntryIterator.hpp"

#include <foundation/storage/provider/IProvider.hpp>

#include <utility>

// Default listings, which call the provider's plain listings.

namespace foundation::storage::provider
{

namespace
{

FolderEntryIteratorPtr filtered(FolderEntryIteratorPtr listing, const std::u16string& pattern)
{
    return std::make_unique<FilteredEntryIterator>(std::move(listing), pattern);
}

} // namespace

FolderEntryIteratorPtr IProvider::doListAllWildcards(const StorageIRI& iri, const std::u16string& pattern) const
{
    return filtered(doListAll(iri), pattern);
}

FolderEntryIteratorPtr IProvider::doListFilesWildcards(const StorageIRI& iri, const std::u16string& pattern) const
{
    return filtered(doListFiles(iri), pattern);
}

FolderEntryIteratorPtr IProvider::doListFoldersWildcards(const StorageIRI& iri, const std::u16string& pattern) const
{
    return filtered(doListFolders(iri), pattern);
}

FolderEntryIteratorPtr IProvider::doListAllNamesOnly(const StorageIRI& iri) const
{
    return doListAll(iri);
}

FolderEntryIteratorPtr IProvider::doListAllNamesOnlyWildcards(
    const StorageIRI& iri, const std::u16string& pattern) const
{
    return filtered(doListAllNamesOnly(iri), pattern);
}

FolderEntryIteratorPtr IProvider::doListFoldersNamesOnly(const StorageIRI& iri) const
{
    return doListFolders(iri);
}

FolderEntryIteratorPtr IProvider::doListFoldersNamesOnlyWildcards(
    const StorageIRI& iri, const std::u16string& pattern) const
{
    return filtered(doListFoldersNamesOnly(iri), pattern);
}

FolderEntryIteratorPtr IProvider::doListFilesNamesOnly(const StorageIRI& iri) const
{
    return doListFiles(iri);
}

FolderEntryIteratorPtr IProvider::doListFilesNamesOnlyWildcards(
    const StorageIRI& iri, const std::u16string& pattern) const
{
    return filtered(doListFilesNamesOnly(iri), pattern);
}

FolderEntryIteratorPtr IProvider::doListAllRecursiveWildcards(
    const StorageIRI& iri, const std::u16string& pattern) const
{
    return filtered(doListAllRecursive(iri), pattern);
}

FolderEntryIteratorPtr IProvider::doListAllRecursiveNamesOnly(const StorageIRI& iri) const
{
    return doListAllRecursive(iri);
}

FolderEntryIteratorPtr IProvider::doListAllRecursiveNamesOnlyWildcards(
    const StorageIRI& iri, const std::u16string& pattern) const
{
    return filtered(doListAllRecursiveNamesOnly(iri), pattern);
}

} // namespace foundation::storage::provider
