#pragma once

#include "ContentFiles.hpp"
#include "Database.hpp"
#include "StagedContent.hpp"
#include "StoreError.hpp"

#include <cstddef>
#include <cstdint>
#include <functional>
#include <optional>
#include <vector>

namespace storage::clients::local
{

/// The next id that StoreTransaction::newId() assigns. Ids below have been assigned and are never assigned again.
///
/// @throws StoreError
std::int64_t readNextId(Connection& index);

/// A transaction on the index and the content files: both change, or neither. Rolled back unless it is committed.
///
/// New files are published before the index is committed, and dropped ones removed afterwards, so the index never names
/// a file that does not exist. A crash in between leaves orphans: files that the index does not name.
class StoreTransaction
{
public:
    /// @param wait  see Database::WriteTransaction
    StoreTransaction(
        Database& database, ContentFiles& files, Durability durability, std::optional<LockWait> wait = std::nullopt);

    /// A part of a Synced transaction that others share; see commitShared().
    StoreTransaction(Database& database, ContentFiles& files, Connection& index);

    StoreTransaction(const StoreTransaction&) = delete;
    StoreTransaction& operator=(const StoreTransaction&) = delete;
    ~StoreTransaction();

    Connection& index() { return *m_index; }

    /// The session of this client. Other clients see that it has ended when the client has.
    std::int64_t session();

    /// An id that no object or content (see add()) of the store has or had.
    std::int64_t newId();

    /// Let a Synced commit also sync the names of files that earlier, deferred transactions added.
    void syncEarlierFiles() { m_filesToSync = true; }

    /// Add the bytes of an object or a part as a new content with a reference count of 1. The caller stores that
    /// reference.
    ///
    /// @return its id
    std::int64_t add(StagedContent& content);

    /// Add 1 to the reference count. The caller stores the new reference.
    void share(std::int64_t content);

    /// Subtract 1 from the reference count. The caller has removed that reference. Drops the content and its bytes when
    /// none is left.
    void release(std::int64_t content);

    /// How many references were removed by release().
    std::size_t released() const noexcept { return m_released; }

    /// Leave the rest of a removal to other transactions, after this one: see dropRemoved().
    void leaveRest() { m_hasRest = true; }

    /// @param committed  called before another writer of this client has its turn; empty: nothing
    /// @throws StoreError; nothing has changed
    void commit(const std::function<void()>& committed = {});

    // What commit() does before and after the commit of the index, or after its failure.
    void prepareCommit();
    void finishCommit();
    void commitFailed(const StoreError& error);

private:
    void removeDroppedFiles();

    const Durability m_durability;
    Database& m_database;
    ContentFiles& m_files;
    SessionLock::Notes m_notes;
    std::optional<Database::WriteTransaction> m_own; // empty: others share it, or it was committed
    Connection* const m_index;                       // not to be used after the commit
    bool m_filesToSync = false;
    bool m_hasRest = false;
    std::size_t m_released = 0;           // references to contents that were removed
    std::optional<std::int64_t> m_nextId; // empty: newId() was not called
    std::vector<FileName> m_added;        // removed unless this is committed
    std::vector<FileName> m_dropped;      // removed after the commit
};

/// Make a change in a Synced transaction, which the changes of other threads may share. When this returns, it is
/// durable.
///
/// @param change     must not add a file; may be called twice, also on another thread, and not twice at the same time
/// @param committed  see StoreTransaction::commit()
/// @throws what the change throws, and StoreError; nothing has changed
void commitShared(Database& database, ContentFiles& files, const std::function<void(StoreTransaction&)>& change,
    const std::function<void()>& committed);

/// Run a transaction that frees more room than it needs. On a full disk, the write-ahead log may have no room for it
/// before it is overwritten; then the transaction runs twice.
///
/// @param wait  for other clients in between; see Database::restartLog()
template <typename Body>
void freeRoom(Database& database, Body body, const std::optional<LockWait>& wait = std::nullopt)
{
    try
    {
        body();
    }
    catch (const StoreError& error)
    {
        if (error.kind() != StoreError::Kind::NoSpace)
        {
            throw;
        }
        database.restartLog(wait);
        body();
    }
}

} // namespace storage::clients::local
