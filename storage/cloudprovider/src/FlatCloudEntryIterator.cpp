#include "FlatCloudEntryIterator.hpp"

namespace storage::cloudprovider
{

FlatCloudEntryIterator::FlatCloudEntryIterator(
    foundation::storage::provider::StorageIRI folder, CloudClientSharedPtr store, ListFilter filter)
    : AbstractCloudEntryIterator(std::move(folder), std::move(store))
    , m_filter(filter)
{
    fetch(true);
}

std::string FlatCloudEntryIterator::delimiter() const
{
    return "/";
}

void FlatCloudEntryIterator::processEntry(std::string name, const ObjectEntry& entry)
{
    const bool isFolder = utils::hasTrailingSlash(name);
    if (isFolder && m_filter != ListFilter::FilesOnly)
    {
        name.pop_back();
        queueFolder(name, entry.lastModified);
    }
    else if (!isFolder && m_filter != ListFilter::FoldersOnly)
    {
        queueFile(name, entry);
    }
}

} // namespace storage::cloudprovider
