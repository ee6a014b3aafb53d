#pragma once

#include "AbstractCloudEntryIterator.hpp"

#include <set>

namespace storage::cloudprovider
{

/// Lists everything below a folder, with names relative to it, and adds the folders that keys imply.
///
/// Each folder is listed once: before everything inside it, and after the folder that contains it. A folder whose
/// marker comes after a key inside it has the time of the listing, not that of the marker.
class RecursiveCloudEntryIterator : public AbstractCloudEntryIterator<RecursiveCloudEntryIterator>
{
public:
    /// Fetch the first entry.
    /// @throws foundation::storage::provider::Exception when the folder does not exist, or for a failure of the store
    RecursiveCloudEntryIterator(foundation::storage::provider::StorageIRI folder, CloudClientSharedPtr store);

protected:
    std::string delimiter() const override;
    void processEntry(std::string name, const ObjectEntry& entry) override;

private:
    void addParentFolders(std::string path);

    std::set<std::string> m_seenFolders; // relative paths of the folders queued so far
};

} // namespace storage::cloudprovider
