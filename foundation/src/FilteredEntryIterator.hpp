#pragma once

#include "WildcardPattern.hpp"

#include <foundation/storage/provider/IFolderEntryIterator.hpp>

#include <exception>
#include <memory>
#include <optional>
#include <string>

namespace foundation::storage::provider
{

/// Iterate over those entries of another iterator whose last name matches a pattern.
class FilteredEntryIterator : public IClonableFolderEntryIterator<FilteredEntryIterator>
{
public:
    /// @param inner  not null; before its first entry
    FilteredEntryIterator(FolderEntryIteratorPtr inner, const std::u16string& pattern);
    FilteredEntryIterator(const FilteredEntryIterator& other);

    FolderEntry getCurrent() const override;
    bool hasNext() const override;
    void next() override;

private:
    void findNext();

    const std::shared_ptr<const WildcardPattern> m_pattern; // shared by clones
    const FolderEntryIteratorPtr m_inner;
    std::optional<FolderEntry> m_current;
    std::optional<FolderEntry> m_next; // read ahead, because hasNext() depends on it
    std::exception_ptr m_failure;      // of reading ahead; thrown when the caller moves to m_next
};

} // namespace foundation::storage::provider
