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
    name.resize(name.size() - (isFolder ? 1 : 0));
    if (m_filter == (isFolder ? ListFilter::FilesOnly : ListFilter::FoldersOnly))
    {
        return;
    }
    if (findUnlistedSegment(name) != std::string::npos)
    {
        warnAboutUnlisted(entry.key);
        return;
    }
    isFolder ? queueFolder(name, entry.lastModified) : queueFile(name, entry);
}

} // namespace storage::cloudprovider
