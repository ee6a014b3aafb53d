#pragma once

#include <foundation/Export.hpp>
#include <foundation/storage/provider/FolderEntry.hpp>

#include <memory>

namespace foundation::storage::provider
{

class IFolderEntryIterator;

/// Owns an iterator.
using FolderEntryIteratorPtr = std::unique_ptr<IFolderEntryIterator>;

/// Walk through a listing: `while (it->hasNext()) { it->next(); use(it->getCurrent()); }`.
///
/// One thread at a time may use an iterator. Clones are independent of each other.
class FOUNDATION_EXPORT IFolderEntryIterator
{
public:
    /// Give the entry that the last next() arrived at. Call next() at least once before.
    virtual FolderEntry getCurrent() const = 0;

    /// Tell whether next() may be called.
    virtual bool hasNext() const = 0;

    /// Advance. Call it only while hasNext() is true.
    ///
    /// @throws Exception if what follows cannot be fetched; getCurrent() then already gives the entry arrived at
    virtual void next() = 0;

    /// Make an independent iterator at the same place.
    virtual FolderEntryIteratorPtr clone() const = 0;

    virtual ~IFolderEntryIterator();

protected:
    IFolderEntryIterator() = default;
    IFolderEntryIterator(const IFolderEntryIterator&) = default;
    IFolderEntryIterator& operator=(const IFolderEntryIterator&) = default;
};

/// Implement clone() for an iterator class T by T's copy constructor: `class It : public
/// IClonableFolderEntryIterator<It>`.
template <class T>
class IClonableFolderEntryIterator : public IFolderEntryIterator
{
public:
    FolderEntryIteratorPtr clone() const override { return std::make_unique<T>(static_cast<const T&>(*this)); }
};

} // namespace foundation::storage::provider
