#pragma once

#include "AbstractCloudEntryIterator.hpp"

#include <set>

namespace storage::cloudprovider
{

/// Lists everything below a folder, by names relative to it, and makes up the folders that keys imply.
///
/// Every folder comes once, outer ones before inner ones, each before the first entry in it. A folder that is known
/// from a key below it before its marker comes carries the time of the listing.
class RecursiveCloudEntryIterator : public AbstractCloudEntryIterator<RecursiveCloudEntryIterator>
{
public:
    /// Fetch the first entry at once.
    /// @throws foundation::storage::provider::Exception  there is no such folder, or the store failed
    RecursiveCloudEntryIterator(foundation::storage::provider::StorageIRI folder, CloudClientSharedPtr store);

protected:
    std::string delimiter() const override;
    void processEntry(std::string name, const ObjectEntry& entry) override;

private:
    void addParentFolders(std::string path);

    std::set<std::string> m_seenFolders; // relative paths of the folders queued so far
};

} // namespace storage::cloudprovider
