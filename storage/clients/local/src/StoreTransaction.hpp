#pragma once

#include "ContentFiles.hpp"
#include "Database.hpp"
#include "StagedContent.hpp"

#include <cstdint>
#include <optional>
#include <vector>

namespace storage::clients::local
{

/// A change of the index together with the files that it adds and drops: both happen, or neither.
///
/// New files take their place before the change is committed, and dropped ones go after it, so that the index never
/// names a file that is not there. A crash in between leaves files that it does not name.
class StoreTransaction
{
public:
    StoreTransaction(Database& database, ContentFiles& files, Durability durability);
    StoreTransaction(const StoreTransaction&) = delete;
    StoreTransaction& operator=(const StoreTransaction&) = delete;
    ~StoreTransaction();

    Connection& index() { return **m_index; }

    /// A number that nothing in the store has or had.
    std::int64_t newNumber();

    /// Make the files of earlier, provisional changes last if this one does.
    void syncEarlierFiles() { m_filesToSync = true; }

    /// Add a content with one reference, which the caller stores.
    std::int64_t add(StagedContent& content);

    /// Count one more reference, which the caller stores.
    void share(std::int64_t content);

    /// Count one reference less, which the caller has removed. The content goes with its last one.
    void release(std::int64_t content);

    /// @throws StoreError; the change has not happened
    void commit();

private:
    void removeDropped();

    const Durability m_durability;
    Database& m_database;
    ContentFiles& m_files;
    std::optional<Database::WriteTransaction> m_index; // empty once it is committed
    bool m_filesToSync = false;
    std::optional<std::int64_t> m_nextNumber; // empty: none was asked for
    std::vector<FileName> m_added;            // to be removed unless this is committed
    std::vector<FileName> m_dropped;          // to be removed once it is
};

} // namespace storage::clients::local
