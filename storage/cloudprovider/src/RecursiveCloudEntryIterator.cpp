#include "RecursiveCloudEntryIterator.hpp"

#include <boost/date_time/microsec_time_clock.hpp>
#include <boost/date_time/posix_time/posix_time_types.hpp>

namespace storage::cloudprovider
{

RecursiveCloudEntryIterator::RecursiveCloudEntryIterator(
    foundation::storage::provider::StorageIRI folder, CloudClientSharedPtr store)
    : AbstractCloudEntryIterator(std::move(folder), std::move(store))
{
    fetch(true);
}

std::string RecursiveCloudEntryIterator::delimiter() const
{
    return {};
}

void RecursiveCloudEntryIterator::processEntry(std::string name, const ObjectEntry& entry)
{
    const bool isFolder = utils::hasTrailingSlash(name);
    if (isFolder)
    {
        name.pop_back();
    }
    const std::size_t unlisted = findUnlistedSegment(name);
    if (unlisted != std::string::npos)
    {
        warnAboutUnlisted(entry.key);
        addParentFolders(name.substr(0, unlisted));
    }
    else if (!isFolder)
    {
        addParentFolders(name);
        queueFile(name, entry);
    }
    else if (m_seenFolders.insert(name).second)
    {
        addParentFolders(name);
        queueFolder(name, entry.lastModified);
    }
}

void RecursiveCloudEntryIterator::addParentFolders(std::string path)
{
    const std::size_t separator = path.rfind('/');
    if (separator == std::string::npos)
    {
        return;
    }
    path.resize(separator);
    if (m_seenFolders.insert(path).second)
    {
        addParentFolders(path);
        queueFolder(path, boost::posix_time::microsec_clock::universal_time());
    }
}

} // namespace storage::cloudprovider
