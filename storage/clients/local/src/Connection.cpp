#include "Connection.hpp"

#include "StoreError.hpp"

#include <sqlite3.h>

#include <memory>
#include <string>
#include <utility>

namespace storage::clients::local
{

namespace
{

// Find the process that keeps this process from using an index, by the bytes that SQLite locks.
//
// @param alone  whether others may not even read
std::optional<pid_t> findHolder(const std::filesystem::path& index, bool alone)
{
    constexpr std::int64_t writer = 120;         // of the shared memory
    constexpr std::int64_t firstUser = 128;      // of the shared memory
    constexpr std::int64_t anyUser = 0x40000002; // of the index: exclusive, if a program does not use the log
    const std::filesystem::path memory = index.native() + "-shm";
    for (const auto& [file, byte] :
        {std::pair(memory, writer), std::pair(memory, firstUser), std::pair(index, anyUser)})
    {
        if (const auto holder = findLockHolder(file, byte, alone && byte == anyUser))
        {
            return holder;
        }
    }
    return std::nullopt;
}

// A transaction stays in memory until it is committed, because CheckedVfs expects that no frame of the log is written
// twice. Pages that a removal frees are not overwritten: on a full disk, there may be no room in the log for that. A
// log that has grown beyond the limit, because a reader was slow, gives its room back. What a savepoint needs for its
// rollback stays in memory, too, and so needs no room on a disk.
constexpr const char* settings = R"(
    PRAGMA cache_spill = OFF;
    PRAGMA secure_delete = OFF;
    PRAGMA temp_store = MEMORY;
    PRAGMA journal_size_limit = 4194304;
)";

} // namespace

Query::~Query()
{
    reset();
}

bool Query::next()
{
    const int code = sqlite3_step(m_statement);
    check(code);
    return code == SQLITE_ROW;
}

void Query::bind(std::int64_t value)
{
    check(sqlite3_bind_int64(m_statement, ++m_bound, value));
}

void Query::bind(Blob value)
{
    // A null pointer would bind NULL, also with a length of 0.
    const char* bytes = value.bytes.empty() ? "" : value.bytes.data();
    check(sqlite3_bind_blob64(m_statement, ++m_bound, bytes, value.bytes.size(), SQLITE_STATIC));
}

void Query::bind(const std::optional<std::int64_t>& value)
{
    value ? bind(*value) : check(sqlite3_bind_null(m_statement, ++m_bound));
}

void Query::bind(const Query& row)
{
    for (int column = 0; column < sqlite3_column_count(row.m_statement); ++column)
    {
        check(sqlite3_bind_value(m_statement, ++m_bound, sqlite3_column_value(row.m_statement, column)));
    }
}

void Query::reset() noexcept
{
    sqlite3_reset(m_statement); // returns the error that next() has already reported
    m_bound = 0;
}

std::int64_t Query::integer(int column) const
{
    return sqlite3_column_int64(m_statement, column);
}

std::string_view Query::bytes(int column) const
{
    const auto* bytes = static_cast<const char*>(sqlite3_column_blob(m_statement, column));
    return {bytes, static_cast<std::size_t>(sqlite3_column_bytes(m_statement, column))};
}

bool Query::isNull(int column) const
{
    return sqlite3_column_type(m_statement, column) == SQLITE_NULL;
}

void Query::check(int code) const
{
    m_connection.check(code);
}

Connection::Connection(const std::filesystem::path& file, const LockWait& wait, const char* vfs)
    : m_wait(wait)
{
    // Only one thread at a time uses a connection, so it needs no mutex of its own.
    constexpr int flags = SQLITE_OPEN_READWRITE | SQLITE_OPEN_NOMUTEX | SQLITE_OPEN_EXRESCODE;
    if (const int code = sqlite3_open_v2(file.c_str(), &m_handle, flags, vfs); code != SQLITE_OK)
    {
        const StoreError error = sqliteError(code, m_handle ? sqlite3_system_errno(m_handle) : 0, sqlite3_errstr(code));
        sqlite3_close(m_handle);
        throw error;
    }
    sqlite3_busy_handler(m_handle, waitForLock, this);
    // The last connection would otherwise move the log into the index. Meanwhile it excludes all others, and a process
    // that is stopped then would keep readers waiting. See emptyLog().
    sqlite3_db_config(m_handle, SQLITE_DBCONFIG_NO_CKPT_ON_CLOSE, 1, nullptr);
    try
    {
        execute(settings);
    }
    catch (...)
    {
        sqlite3_close(m_handle);
        throw;
    }
}

Connection::~Connection()
{
    for (const auto& [sql, statement] : m_statements)
    {
        sqlite3_finalize(statement);
    }
    sqlite3_close(m_handle);
}

void Connection::execute(const char* sql)
{
    check(sqlite3_exec(m_handle, sql, nullptr, nullptr, nullptr));
}

void Connection::reserveChecksums()
{
    int size = pageChecksumSize;
    sqlite3_file_control(m_handle, "main", SQLITE_FCNTL_RESERVE_BYTES, &size);
}

void Connection::keepOthersOut()
{
    m_keepsOthersOut = true;
    execute("PRAGMA locking_mode = EXCLUSIVE");
}

void Connection::ignoreLogEnd()
{
    sqlite3_file_control(m_handle, "main", local::ignoreLogEnd, nullptr);
}

void Connection::checkPages(const std::function<bool()>& interrupted)
{
    // SQLite has a handler for long statements, but does not call it while it reads the pages.
    std::function<void()> onRead = [&]
    {
        if (interrupted && interrupted())
        {
            sqlite3_interrupt(m_handle);
        }
    };
    sqlite3_file_control(m_handle, "main", callOnRead, &onRead);
    const std::shared_ptr<void> atEnd(
        nullptr, [this](void*) { sqlite3_file_control(m_handle, "main", callOnRead, nullptr); });
    Query check = query("PRAGMA integrity_check(1)");
    if (check.next() && check.bytes(0) != "ok")
    {
        const std::string_view text = check.bytes(0);
        throw damage("the index: " + std::string(text.substr(text.find('\n') + 1))); // without a heading
    }
}

void Connection::emptyLog() noexcept
{
    m_wait.reset();
    sqlite3_wal_checkpoint_v2(m_handle, nullptr, SQLITE_CHECKPOINT_TRUNCATE, nullptr, nullptr);
}

void Connection::setSynced(bool isSynced)
{
    if (m_isSynced != isSynced)
    {
        execute(isSynced ? "PRAGMA synchronous = FULL" : "PRAGMA synchronous = NORMAL");
        m_isSynced = isSynced;
    }
}

bool Connection::tryInSavepoint(const std::function<void(Connection&)>& function) noexcept
try
{
    run("SAVEPOINT tried");
    function(*this);
    run("RELEASE tried");
    return true;
}
catch (...) // whoever needs the reason runs the function again
{
    // Some errors have already rolled the whole transaction back.
    constexpr const char* undo = "ROLLBACK TO tried; RELEASE tried";
    if (isInTransaction() && sqlite3_exec(m_handle, undo, nullptr, nullptr, nullptr) != SQLITE_OK)
    {
        rollBack();
    }
    return false;
}

bool Connection::isInTransaction() const noexcept
{
    return sqlite3_get_autocommit(m_handle) == 0;
}

bool Connection::rollBack() noexcept
{
    if (!isInTransaction())
    {
        return true;
    }
    try
    {
        run("ROLLBACK"); // prepared: each reading transaction ends here
        return true;
    }
    catch (const std::exception&) // closing the connection ends the transaction
    {
        return false;
    }
}

sqlite3_stmt* Connection::prepared(std::string_view sql)
{
    sqlite3_stmt*& statement = m_statements[sql];
    if (statement == nullptr)
    {
        check(sqlite3_prepare_v3(
            m_handle, sql.data(), static_cast<int>(sql.size()), SQLITE_PREPARE_PERSISTENT, &statement, nullptr));
    }
    return statement;
}

// SQLite's own handler sleeps up to 100 ms between two attempts, many times as long as a commit takes.
int Connection::waitForLock(void* connection, int)
{
    std::optional<LockWait>& wait = static_cast<Connection*>(connection)->m_wait;
    return wait && wait->pause() ? 1 : 0;
}

void Connection::check(int code) const
{
    if (code == SQLITE_OK || code == SQLITE_ROW || code == SQLITE_DONE)
    {
        return;
    }
    const int kind = code & 0xFF;
    if (m_wait && (kind == SQLITE_BUSY || kind == SQLITE_PROTOCOL))
    {
        m_wait->fail("the index", findHolder(sqlite3_db_filename(m_handle, "main"), m_keepsOthersOut));
    }
    throw sqliteError(code, sqlite3_system_errno(m_handle), sqlite3_errmsg(m_handle));
}

} // namespace storage::clients::local
