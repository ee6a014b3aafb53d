#include "Database.hpp"

#include "Failure.hpp"

#include <sqlite3.h>

#include <cerrno>

namespace storage::mount
{

Database::Database(const std::filesystem::path& path)
    : m_database(nullptr, &::sqlite3_close)
{
    sqlite3* database = nullptr;
    const int status = ::sqlite3_open_v2(
        path.c_str(), &database, SQLITE_OPEN_READWRITE | SQLITE_OPEN_CREATE | SQLITE_OPEN_NOMUTEX, nullptr);
    m_database.reset(database);
    check(status);
    // Killing the process loses nothing without a sync. Another process cannot open the file meanwhile.
    execute("PRAGMA locking_mode = EXCLUSIVE; PRAGMA journal_mode = WAL; PRAGMA synchronous = OFF");
}

void Database::check(int status) const
{
    if (status == SQLITE_BUSY)
    {
        throw Failure(EBUSY, "another mount uses the cache folder of this one; choose another by --cache-dir");
    }
    if (status != SQLITE_OK)
    {
        throw Failure(status == SQLITE_FULL ? ENOSPC : EIO,
            std::string("the records of the mount cannot be used: ") + ::sqlite3_errmsg(m_database.get()));
    }
}

void Database::execute(const char* sql)
{
    check(::sqlite3_exec(m_database.get(), sql, nullptr, nullptr, nullptr));
}

void Database::atomically(const std::function<void()>& change)
{
    execute("BEGIN");
    try
    {
        change();
        execute("COMMIT");
    }
    catch (...)
    {
        ::sqlite3_exec(m_database.get(), "ROLLBACK", nullptr, nullptr, nullptr);
        throw;
    }
}

Database::Statement::Statement(Database& database, const char* sql)
    : m_database(database)
{
    m_database.check(
        ::sqlite3_prepare_v3(database.m_database.get(), sql, -1, SQLITE_PREPARE_PERSISTENT, &m_statement, nullptr));
}

Database::Statement::~Statement()
{
    ::sqlite3_finalize(m_statement);
}

void Database::Statement::step(const std::function<void()>& use)
{
    int status = ::sqlite3_step(m_statement);
    for (; status == SQLITE_ROW; status = ::sqlite3_step(m_statement))
    {
        use();
    }
    ::sqlite3_reset(m_statement);
    m_database.check(status == SQLITE_DONE ? SQLITE_OK : status);
}

bool Database::Statement::isNull(int column) const
{
    return ::sqlite3_column_type(m_statement, column) == SQLITE_NULL;
}

std::int64_t Database::Statement::number(int column) const
{
    return ::sqlite3_column_int64(m_statement, column);
}

std::string Database::Statement::text(int column) const
{
    const auto* const bytes = reinterpret_cast<const char*>(::sqlite3_column_text(m_statement, column));
    return {bytes, static_cast<std::size_t>(::sqlite3_column_bytes(m_statement, column))};
}

void Database::Statement::bind(int index, std::int64_t value)
{
    m_database.check(::sqlite3_bind_int64(m_statement, index, value));
}

void Database::Statement::bind(int index, std::nullptr_t)
{
    m_database.check(::sqlite3_bind_null(m_statement, index));
}

void Database::Statement::bind(int index, const std::string& value)
{
    m_database.check(
        ::sqlite3_bind_text(m_statement, index, value.data(), static_cast<int>(value.size()), SQLITE_STATIC));
}

} // namespace storage::mount
