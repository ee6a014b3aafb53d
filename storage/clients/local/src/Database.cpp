#include "Database.hpp"

namespace storage::clients::local
{

Database::Database(std::filesystem::path file)
    : m_file(std::move(file))
{
}

Database::Lease Database::borrow()
{
    {
        const std::lock_guard lock(m_poolMutex);
        if (!m_idle.empty())
        {
            Lease lease(m_idle.back().release(), Return{this});
            m_idle.pop_back();
            return lease;
        }
        m_idle.reserve(++m_connections);
    }
    return {new Connection(m_file), Return{this}};
}

void Database::returnConnection(Connection* connection) noexcept
{
    std::unique_ptr<Connection> returned(connection);
    // A transaction that cannot be rolled back ends when its connection is closed.
    if (returned->rollBack())
    {
        const std::lock_guard lock(m_poolMutex);
        m_idle.push_back(std::move(returned));
    }
}

Database::ReadTransaction::ReadTransaction(Database& database)
    : m_connection(database.borrow())
{
    m_connection->run("BEGIN");
}

Database::WriteTransaction::WriteTransaction(Database& database, Durability durability)
    : m_lock(database.m_writerMutex)
    , m_connection(database.borrow())
{
    // Whether the commit waits for the disk. SQLite does not allow a change inside a transaction.
    m_connection->execute(
        durability == Durability::Synced ? "PRAGMA synchronous = FULL" : "PRAGMA synchronous = NORMAL");
    m_connection->run("BEGIN IMMEDIATE");
}

void Database::WriteTransaction::commit()
{
    m_connection->run("COMMIT");
}

} // namespace storage::clients::local
