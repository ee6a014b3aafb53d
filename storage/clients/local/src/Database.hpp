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

/// What a change survives once it is committed.
enum class Durability
{
    Synced,  ///< the end of the process and a loss of power
    Deferred ///< the end of the process; after a loss of power it may be undone, but not if a lasting one followed
};

/// The index as all threads of one client use it: a pool of connections, of which each transaction borrows one.
///
/// Readers never wait, neither for each other nor for a writer. Writers take turns: those of this client by a mutex,
/// which is fairer than asking again and again, and those of other clients and processes by SQLite's lock.
class Database
{
    // Gives a connection back to the pool.
    struct Return
    {
        Database* database;
        void operator()(Connection* connection) const noexcept { database->giveBack(connection); }
    };
    using Lease = std::unique_ptr<Connection, Return>;

public:
    explicit Database(std::filesystem::path file);

    /// A view of one state of the index, until it ends. To be kept short: it holds up the tidying of the log.
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

    /// The one change of the index that is under way; undone unless it is committed.
    class WriteTransaction
    {
    public:
        WriteTransaction(Database& database, Durability durability);
        WriteTransaction(const WriteTransaction&) = delete;
        WriteTransaction& operator=(const WriteTransaction&) = delete;

        /// Make the change visible, and as durable as was asked for.
        ///
        /// @throws StoreError; nothing of the change is visible then. If its kind is not NoSpace, the disk may hold the
        ///         change all the same, and a crash that follows may bring it back.
        void commit();

        Connection& operator*() const { return *m_connection; }
        Connection* operator->() const { return m_connection.get(); }

    private:
        const std::unique_lock<std::mutex> m_writerMutex;
        const Lease m_connection;
    };

private:
    Lease borrow();
    void giveBack(Connection* connection) noexcept;

    const std::filesystem::path m_file;

    // Lock order: a writer's turn, then SQLite's locks; the pool's mutex is innermost.
    std::mutex m_writerMutex;
    std::mutex m_poolMutex;
    std::size_t m_connections = 0;                   // guarded by m_poolMutex; as many as were ever busy together
    std::vector<std::unique_ptr<Connection>> m_idle; // guarded by m_poolMutex; has room for all of them
};

} // namespace storage::clients::local
