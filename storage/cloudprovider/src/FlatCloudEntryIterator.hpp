#pragma once

#include "AbstractCloudEntryIterator.hpp"

#include <cstdint>

namespace storage::cloudprovider
{

/// Which entries of a folder are listed.
enum class ListFilter : std::uint32_t
{
    FilesOnly = 0,
    FoldersOnly = 1,
    All = 2,
};

/// Lists one level of a folder. The store groups keys at "/"; each group is a folder.
class FlatCloudEntryIterator : public AbstractCloudEntryIterator<FlatCloudEntryIterator>
{
public:
    /// Fetch the first entry.
    /// @throws foundation::storage::provider::Exception when the folder does not exist, or for a failure of the store
    FlatCloudEntryIterator(
        foundation::storage::provider::StorageIRI folder, CloudClientSharedPtr store, ListFilter filter);

protected:
    std::string delimiter() const override;
    void processEntry(std::string name, const ObjectEntry& entry) override;

private:
    ListFilter m_filter;
};

} // namespace storage::cloudprovider
