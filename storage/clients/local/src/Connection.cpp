#include "Connection.hpp"

#include "StoreError.hpp"

#include <sqlite3.h>

#include <chrono>
#include <thread>

namespace storage::clients::local
{

namespace
{

[[noreturn]] void failAs(sqlite3* handle, int code)
{
    throw sqliteError(code, sqlite3_system_errno(handle), sqlite3_errmsg(handle));
}

// SQLite's own handler sleeps up to 100 ms between two attempts, many times as long as a commit takes.
int waitForLock(void*, int attempts)
{
    using namespace std::chrono_literals;
    constexpr auto pause = 1ms;
    constexpr auto timeout = 60s; // far longer than any transaction: the process that holds the lock hangs
    if (attempts * pause >= timeout)
    {
        return 0;
    }
    std::this_thread::sleep_for(pause);
    return 1;
}

// A transaction stays in memory until it is committed, because CheckedVfs expects that no frame of the log is written
// twice. Pages that a removal frees are not overwritten: on a full disk, there may be no room in the log for that. A
// log that has grown beyond the limit, because a reader was slow, gives its room back.
constexpr const char* settings = R"(
    PRAGMA cache_spill = OFF;
    PRAGMA secure_delete = OFF;
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
    if (code != SQLITE_ROW && code != SQLITE_DONE)
    {
        fail(code);
    }
    return code == SQLITE_ROW;
}

void Query::bind(std::int64_t value)
{
    if (const int code = sqlite3_bind_int64(m_statement, ++m_bound, value); code != SQLITE_OK)
    {
        fail(code);
    }
}

void Query::bind(Blob value)
{
    // A null pointer would bind NULL, also with a length of 0.
    const char* bytes = value.bytes.empty() ? "" : value.bytes.data();
    if (const int code = sqlite3_bind_blob64(m_statement, ++m_bound, bytes, value.bytes.size(), SQLITE_STATIC);
        code != SQLITE_OK)
    {
        fail(code);
    }
}

void Query::bind(std::nullptr_t)
{
    if (const int code = sqlite3_bind_null(m_statement, ++m_bound); code != SQLITE_OK)
    {
        fail(code);
    }
}

void Query::bind(const Query& row)
{
    for (int column = 0; column < sqlite3_column_count(row.m_statement); ++column)
    {
        if (const int code = sqlite3_bind_value(m_statement, ++m_bound, sqlite3_column_value(row.m_statement, column));
            code != SQLITE_OK)
        {
            fail(code);
        }
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

void Query::fail(int code) const
{
    failAs(sqlite3_db_handle(m_statement), code);
}

Connection::Connection(const std::filesystem::path& file, const char* vfs)
{
    // Only one thread at a time uses a connection, so it needs no mutex of its own.
    constexpr int flags = SQLITE_OPEN_READWRITE | SQLITE_OPEN_NOMUTEX | SQLITE_OPEN_EXRESCODE;
    if (const int code = sqlite3_open_v2(file.c_str(), &m_handle, flags, vfs); code != SQLITE_OK)
    {
        const StoreError error = sqliteError(code, m_handle ? sqlite3_system_errno(m_handle) : 0, sqlite3_errstr(code));
        sqlite3_close(m_handle);
        throw error;
    }
    sqlite3_busy_handler(m_handle, waitForLock, nullptr);
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
    if (const int code = sqlite3_exec(m_handle, sql, nullptr, nullptr, nullptr); code != SQLITE_OK)
    {
        failAs(m_handle, code);
    }
}

void Connection::reserveChecksums()
{
    int size = pageChecksumSize;
    sqlite3_file_control(m_handle, "main", SQLITE_FCNTL_RESERVE_BYTES, &size);
}

void Connection::keepLogOnClose()
{
    sqlite3_db_config(m_handle, SQLITE_DBCONFIG_NO_CKPT_ON_CLOSE, 1, nullptr);
}

bool Connection::rollBack() noexcept
{
    // Some errors have already rolled the transaction back.
    return sqlite3_get_autocommit(m_handle) != 0 ||
           sqlite3_exec(m_handle, "ROLLBACK", nullptr, nullptr, nullptr) == SQLITE_OK;
}

sqlite3_stmt* Connection::prepared(std::string_view sql)
{
    sqlite3_stmt*& statement = m_statements[sql];
    if (statement == nullptr)
    {
        const int code = sqlite3_prepare_v3(
            m_handle, sql.data(), static_cast<int>(sql.size()), SQLITE_PREPARE_PERSISTENT, &statement, nullptr);
        if (code != SQLITE_OK)
        {
            failAs(m_handle, code);
        }
    }
    return statement;
}

} // namespace storage::clients::local
