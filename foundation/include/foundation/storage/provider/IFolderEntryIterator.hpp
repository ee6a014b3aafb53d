#pragma once

#include <foundation/Export.hpp>
#include <foundation/storage/provider/FolderEntry.hpp>

#include <memory>

namespace foundation::storage::provider
{

class IFolderEntryIterator;

/// Owns an iterator.
using FolderEntryIteratorPtr = std::unique_ptr<IFolderEntryIterator>;

/// Iterate over a listing: `while (it->hasNext()) { it->next(); use(it->getCurrent()); }`.
///
/// Only one thread at a time may use an iterator. Clones are independent of each other.
class FOUNDATION_EXPORT IFolderEntryIterator
{
public:
    /// Get the current entry. Call next() at least once before.
    virtual FolderEntry getCurrent() const = 0;

    /// Tell whether there is a next entry.
    virtual bool hasNext() const = 0;

    /// Move to the next entry. Call this only if hasNext() is true.
    ///
    /// @throws Exception if the entries after it cannot be fetched; getCurrent() already returns the next entry then
    virtual void next() = 0;

    /// Create an independent iterator at the same position.
    virtual FolderEntryIteratorPtr clone() const = 0;

    virtual ~IFolderEntryIterator();

protected:
    IFolderEntryIterator() = default;
    IFolderEntryIterator(const IFolderEntryIterator&) = default;
    IFolderEntryIterator& operator=(const IFolderEntryIterator&) = default;
};

/// Implement clone() with the copy constructor of the iterator class T:
/// `class It : public IClonableFolderEntryIterator<It>`.
template <class T>
class IClonableFolderEntryIterator : public IFolderEntryIterator
{
public:
    FolderEntryIteratorPtr clone() const override { return std::make_unique<T>(static_cast<const T&>(*this)); }
};

} // namespace foundation::storage::provider
