#pragma once

#include "Connection.hpp"

#include <cstddef>
#include <filesystem>
#include <memory>
#include <mutex>
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
/// Readers never wait, neither for each other nor for a writer. Only one writer runs at a time: writers of this client
/// wait for a mutex, which is fairer than polling, and writers of other clients and processes for SQLite's lock.
class Database
{
    // Returns a connection to the pool.
    struct Return
    {
        Database* database;
        void operator()(Connection* connection) const noexcept { database->returnConnection(connection); }
    };
    using Lease = std::unique_ptr<Connection, Return>;

public:
    explicit Database(std::filesystem::path file);

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
        WriteTransaction(Database& database, Durability durability);
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
        const std::unique_lock<std::mutex> m_lock;
        const Lease m_connection;
    };

private:
    Lease borrow();
    void returnConnection(Connection* connection) noexcept;

    const std::filesystem::path m_file;

    // Lock order: m_writerMutex, then SQLite's locks; m_poolMutex is innermost.
    std::mutex m_writerMutex;
    std::mutex m_poolMutex;
    std::size_t m_connections = 0;                   // guarded by m_poolMutex; opened so far
    std::vector<std::unique_ptr<Connection>> m_idle; // guarded by m_poolMutex; has capacity for all of them
};

} // namespace storage::clients::local
