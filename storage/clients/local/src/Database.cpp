#include "Database.hpp"

#include "StoreError.hpp"

#include <storage/cloudprovider/Logger.hpp>

#include <foundation/log/Severity.hpp>

#include <fmt/format.h>

#include <unistd.h>

namespace storage::clients::local
{

// A StoreError, but with text that threads do not share.
struct Database::Failure
{
    StoreError::Kind kind;
    std::string reason;
};

// Written by the writer whose turn it is, except where it says otherwise.
struct Database::Group
{
    Group(Lease leased, Durability requested)
        : connection(std::move(leased))
        , durability(requested)
    {
    }

    Lease connection; // empty: the group has ended
    const Durability durability;
    std::function<void()> before;
    std::function<void()> after;
    std::vector<std::function<void(StoreError::Kind)>> failed; // of all transactions
    bool isDone = false;                                       // guarded by m_turnMutex
    std::optional<Failure> failure;                            // constant when isDone
};

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

Database::Turn Database::takeTurn(const LockWait& wait, bool sharesCommit)
{
    // The writer in front may be waiting for another process. Let it fail first: then this one finds that process, too.
    constexpr std::chrono::seconds grace{1};
    const auto end = wait.end() > std::chrono::steady_clock::now() ? wait.end() + grace : wait.end();
    std::unique_lock lock(m_turnMutex);
    m_waiting += sharesCommit ? 1 : 0;
    const bool isOurs =
        m_turnEnded.wait_until(lock, end, [&] { return !m_isWriting && (sharesCommit || m_open == nullptr); });
    m_waiting -= sharesCommit ? 1 : 0;
    if (!isOurs)
    {
        lock.unlock();
        m_turnEnded.notify_all(); // others may have left their commit to this writer
        wait.fail("the index", ::getpid());
    }
    m_isWriting = true;
    return Turn(this);
}

void Database::endTurn() noexcept
{
    {
        const std::lock_guard lock(m_turnMutex);
        m_isWriting = false;
    }
    m_turnEnded.notify_all();
}

void Database::commit(const std::shared_ptr<Group>& group, Turn turn)
{
    {
        std::unique_lock lock(m_turnMutex);
        // On a full disk, there may be room for one transaction, but not for several.
        if (group->durability == Durability::Synced && m_waiting > 0 && !m_isFull)
        {
            m_open = group;
            m_isWriting = false;
            static_cast<void>(turn.release()); // ended above, so that this does not unlock and lock
            m_turnEnded.notify_all();
            m_turnEnded.wait(lock, [&] { return group->isDone || (!m_isWriting && m_waiting == 0); });
            if (group->isDone)
            {
                return throwIfFailed(*group);
            }
            m_isWriting = true; // the writer that was to commit has failed or given up
            turn.reset(this);
        }
        m_open.reset();
    }
    std::optional<Failure> failure;
    try
    {
        group->before ? group->before() : void();
        group->connection->run("COMMIT");
        m_hasCommitted = true;
        group->after ? group->after() : void();
    }
    catch (const StoreError& error)
    {
        failure = {error.kind(), error.what()};
    }
    catch (const std::exception& error) // the others wait for the end
    {
        failure = {StoreError::Kind::Other, error.what()};
    }
    finish(*group, std::move(failure));
    turn.reset();
    throwIfFailed(*group);
}

void Database::throwIfFailed(const Group& group)
{
    if (group.failure)
    {
        throw StoreError(group.failure->kind, group.failure->reason);
    }
}

// End the group, while it is the turn of one of its writers.
void Database::finish(Group& group, std::optional<Failure> failure) noexcept
{
    if (failure)
    {
        for (const auto& failed : group.failed)
        {
            failed(failure->kind);
        }
    }
    group.connection.reset(); // rolls back what was not committed
    const std::lock_guard lock(m_turnMutex);
    m_isFull = failure && failure->kind == StoreError::Kind::NoSpace;
    group.failure = std::move(failure);
    group.isDone = true;
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

void Database::restartLog(std::optional<LockWait> wait)
{
    const Turn turn = takeTurn(wait ? *wait : wait.emplace(m_limits), false);
    borrow(*wait)->execute("PRAGMA wal_checkpoint(TRUNCATE)");
}

void Database::shrink(std::size_t removals)
{
    constexpr std::int64_t minFree = 256; // pages: fewer are soon used again
    constexpr std::int64_t minShare = 4;  // a quarter
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
            WriteTransaction transaction(*this, Durability::Deferred, LockWait(noWait));
            transaction->execute("PRAGMA incremental_vacuum(128)");
            transaction.commit({});
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
    , m_turn(database.takeTurn(wait ? *wait : wait.emplace(database.m_limits), durability == Durability::Synced))
    , m_group(
          [&]
          {
              const std::lock_guard lock(database.m_turnMutex);
              return database.m_open;
          }())
    , m_isSavepoint(m_group != nullptr)
{
    if (m_isSavepoint)
    {
        m_group->connection->run("SAVEPOINT writer");
        return;
    }
    m_group = std::make_shared<Group>(database.borrow(*wait), durability);
    // Whether the commit waits for the disk. SQLite does not allow a change inside a transaction.
    Connection& connection = **this;
    connection.execute(durability == Durability::Synced ? "PRAGMA synchronous = FULL" : "PRAGMA synchronous = NORMAL");
    connection.run("BEGIN IMMEDIATE");
}

Database::WriteTransaction::~WriteTransaction()
{
    if (!m_turn || !m_isSavepoint)
    {
        return;
    }
    try
    {
        m_group->connection->run("ROLLBACK TO writer");
        m_group->connection->run("RELEASE writer");
    }
    catch (const StoreError& error) // it has also undone what the others did
    {
        {
            const std::lock_guard lock(m_database.m_turnMutex);
            m_database.m_open.reset();
        }
        m_database.finish(*m_group, Failure{error.kind(), error.what()});
    }
}

Connection& Database::WriteTransaction::operator*() const
{
    return *m_group->connection;
}

void Database::WriteTransaction::commit(Steps steps)
{
    m_group->failed.reserve(m_group->failed.size() + 1);
    if (m_isSavepoint)
    {
        m_group->connection->run("RELEASE writer");
    }
    if (steps.before)
    {
        m_group->before = std::move(steps.before);
    }
    if (steps.after)
    {
        m_group->after = std::move(steps.after);
    }
    if (steps.failed)
    {
        m_group->failed.push_back(std::move(steps.failed));
    }
    m_database.commit(m_group, std::move(m_turn));
}

} // namespace storage::clients::local
