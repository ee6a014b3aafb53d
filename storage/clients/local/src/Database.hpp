#pragma once

#include "Connection.hpp"
#include "WriterQueue.hpp"

#include <cstddef>
#include <filesystem>
#include <memory>
#include <mutex>
#include <optional>
#include <utility>
#include <vector>

namespace storage::clients::local
{

/// What a committed transaction survives.
enum class Durability
{
    Synced,  ///< a crash of the process and a loss of power
    Deferred ///< a crash of the process; a loss of power may undo it until a later Synced transaction has committed
};

/// The index, shared by all threads of one client: a pool of connections. Each transaction borrows one.
///
/// Readers never wait, neither for each other nor for a writer. Only one transaction writes at a time: writers of this
/// client take turns without polling, which is fairer, or share a transaction, and wait for SQLite's lock if another
/// client or process writes.
class Database
{
    // Ends the turn of a writer of this client.
    struct EndTurn
    {
        void operator()(WriterQueue* writers) const noexcept { writers->endTurn(); }
    };
    using Turn = std::unique_ptr<WriterQueue, EndTurn>;

    // Returns a connection to the pool.
    struct Return
    {
        Database* database;
        void operator()(Connection* connection) const noexcept { database->returnConnection(connection); }
    };
    using Lease = std::unique_ptr<Connection, Return>;

public:
    /// @param limits  of the waits of all transactions
    Database(std::filesystem::path file, LockLimits limits);
    Database(const Database&) = delete;
    Database& operator=(const Database&) = delete;
    ~Database();

    /// A snapshot of the index. Keep it short: SQLite cannot truncate its write-ahead log meanwhile.
    class ReadTransaction
    {
    public:
        explicit ReadTransaction(Database& database);
        ReadTransaction(const ReadTransaction&) = delete;
        ReadTransaction& operator=(const ReadTransaction&) = delete;

        Connection& operator*() const { return *m_connection; }
        Connection* operator->() const { return m_connection.get(); }

    private:
        const Lease m_connection;
    };

    /// The only write transaction on the index at this time; rolled back unless it is committed.
    class WriteTransaction
    {
    public:
        /// @param wait  for other writers; empty: as long as LocalSettings say
        /// @throws StoreError of kind Locked when another client does not end its transaction in time
        WriteTransaction(Database& database, Durability durability, std::optional<LockWait> wait = std::nullopt);
        WriteTransaction(const WriteTransaction&) = delete;
        WriteTransaction& operator=(const WriteTransaction&) = delete;

        /// Make the changes visible, with the requested durability.
        ///
        /// @throws StoreError; the changes are not visible then. Unless its kind is NoSpace, they may have reached the
        ///         disk nevertheless, and a later crash may make them visible.
        void commit();

        Connection& operator*() const { return *m_connection; }
        Connection* operator->() const { return m_connection.get(); }

    private:
        Database& m_database;
        const Turn m_turn;
        const Lease m_connection;
    };

    /// Make a change in a Synced transaction, together with the changes of other threads that wait for their turn. A
    /// thread that is alone does what a WriteTransaction does.
    ///
    /// @return false: nothing has changed, and the caller has to use a WriteTransaction; see WriterQueue
    /// @throws what the change throws, and what a WriteTransaction does
    bool commitShared(const SharedChange& change);

    /// Merge the write-ahead log into the index, so that the next transaction overwrites it from its start on. Needs no
    /// disk space. Waits for all readers and writers.
    ///
    /// @param wait  empty: as long as LocalSettings say
    /// @throws StoreError
    void restartLog(std::optional<LockWait> wait = std::nullopt);

    /// Give some pages back to the file system if much of the index is free. To be called after a removal.
    ///
    /// @param removals  contents that were removed; the more, the more pages are given back
    void shrink(std::size_t removals);

private:
    Turn takeTurn(const LockWait& wait);
    Lease borrow(const LockWait& wait);
    Lease begin(Durability durability, const LockWait& wait);
    void returnConnection(Connection* connection) noexcept;

    const std::filesystem::path m_file;
    const LockLimits m_limits;

    WriterQueue m_writers;                           // a writer takes its turn before SQLite's lock
    bool m_hasCommitted = false;                     // changed by the writer that has the turn
    std::mutex m_poolMutex;                          // innermost
    std::size_t m_connections = 0;                   // guarded by m_poolMutex; opened so far
    std::vector<std::unique_ptr<Connection>> m_idle; // guarded by m_poolMutex; has capacity for all of them
};

} // namespace storage::clients::local
