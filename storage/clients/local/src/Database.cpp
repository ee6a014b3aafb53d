#include "Database.hpp"

#include "StoreError.hpp"

#include <storage/cloudprovider/Logger.hpp>

#include <foundation/log/Severity.hpp>

#include <fmt/format.h>

namespace storage::clients::local
{

Database::Database(std::filesystem::path file, LockLimits limits)
    : m_file(std::move(file))
    , m_limits(std::move(limits))
{
}

Database::~Database()
{
    // The first process that opens the index reads the log, and keeps others waiting meanwhile. So leave none. A client
    // that has only read does not write now.
    if (m_hasCommitted && !m_idle.empty())
    {
        m_idle.back()->emptyLog();
    }
}

Database::Turn Database::takeTurn(const LockWait& wait)
{
    WriterQueue::Writer writer;
    m_writers.enter(writer, wait);
    return Turn(&m_writers);
}

Database::Lease Database::borrow(const LockWait& wait)
{
    Lease lease(nullptr, Return{this});
    {
        const std::lock_guard lock(m_poolMutex);
        if (!m_idle.empty())
        {
            lease.reset(m_idle.back().release());
            m_idle.pop_back();
        }
        else
        {
            m_idle.reserve(++m_connections);
        }
    }
    if (!lease)
    {
        lease.reset(new Connection(m_file, wait));
        // In KiB: for all pages of an index of ten million keys that are not leaves (about 4 MiB) and some leaves, so
        // that finding a key reads one page. Reads the index, so only connections that are about to do so have it.
        lease->execute("PRAGMA cache_size = -8192");
    }
    lease->setWait(wait);
    return lease;
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

Database::Lease Database::begin(Durability durability, const LockWait& wait)
{
    Lease connection = borrow(wait);
    connection->setSynced(durability == Durability::Synced);
    connection->run("BEGIN IMMEDIATE");
    return connection;
}

bool Database::commitShared(const SharedChange& change)
{
    const LockWait wait(m_limits);
    WriterQueue::Writer self(&change);
    if (const auto state = m_writers.enter(self, wait); state != WriterQueue::State::HasTurn)
    {
        self.throwFailure();
        return state == WriterQueue::State::Committed;
    }
    const Turn turn(&m_writers);
    const Lease connection = begin(Durability::Synced, wait);
    change.make(*connection);
    constexpr unsigned maxGroup = 64; // changes of at most 64 KiB each: others wait no longer, and memory is bounded
    bool isShared = false;
    for (unsigned size = 1; size < maxGroup; ++size)
    {
        WriterQueue::Writer* const other = m_writers.takeNext();
        if (other == nullptr)
        {
            break;
        }
        isShared = true;
        if (!connection->tryInSavepoint(other->change().make))
        {
            m_writers.revert(*other);
            if (!connection->isInTransaction())
            {
                return false;
            }
        }
    }
    try
    {
        connection->run("COMMIT");
    }
    catch (const StoreError& error)
    {
        // There may be room for each change alone.
        if (isShared && error.kind() == StoreError::Kind::NoSpace)
        {
            return false;
        }
        m_writers.failed(error);
        throw;
    }
    m_hasCommitted = true;
    m_writers.committed(self);
    self.throwFailure();
    return true;
}

void Database::restartLog(std::optional<LockWait> wait)
{
    const Turn turn = takeTurn(wait ? *wait : wait.emplace(m_limits));
    borrow(*wait)->execute("PRAGMA wal_checkpoint(TRUNCATE)");
}

void Database::shrink(std::size_t removals)
{
    constexpr std::int64_t minFree = 256; // pages: fewer are soon used again
    constexpr std::int64_t minShare = 4;  // a quarter
    // Long enough for the turn of this client; it is queued behind the other writers, which never let go of it.
    static const LockLimits shortWait{std::chrono::milliseconds(100), {}};
    const auto count = [this](const char* pragma)
    {
        const Lease connection = borrow(LockWait(m_limits));
        Query query = connection->query(pragma);
        query.next();
        return query.integer(0);
    };
    try
    {
        const auto isMuchFree = [&]
        {
            const std::int64_t free = count("PRAGMA freelist_count");
            return free >= minFree && free * minShare >= count("PRAGMA page_count");
        };
        for (; removals > 0 && isMuchFree(); --removals)
        {
            // More than a removal frees on average, and little enough that other writers do not notice.
            WriteTransaction transaction(*this, Durability::Deferred, LockWait(shortWait));
            transaction->execute("PRAGMA incremental_vacuum(128)");
            transaction.commit();
        }
    }
    catch (const StoreError& error) // The disk is full, or others keep the index busy. A later removal tries again.
    {
        cloudprovider::getLogger().write(foundation::log::severity::progress,
            fmt::format("Not giving back free pages of a local store's index: {}", error.what()));
    }
}

Database::ReadTransaction::ReadTransaction(Database& database)
    : m_connection(database.borrow(LockWait(database.m_limits)))
{
    m_connection->run("BEGIN");
}

Database::WriteTransaction::WriteTransaction(Database& database, Durability durability, std::optional<LockWait> wait)
    : m_database(database)
    , m_turn(database.takeTurn(wait ? *wait : wait.emplace(database.m_limits)))
    , m_connection(database.begin(durability, *wait))
{
}

void Database::WriteTransaction::commit()
{
    m_connection->run("COMMIT");
    m_database.m_hasCommitted = true;
}

} // namespace storage::clients::local
