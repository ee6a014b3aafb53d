#pragma once

#include <cstddef>
#include <cstdint>
#include <filesystem>
#include <functional>
#include <memory>
#include <mutex>
#include <string>

struct sqlite3;
struct sqlite3_stmt;

namespace storage::mount
{

/// What a mount records on this machine, in SQLite. It survives the process, but nothing is synced.
///
/// @throws Failure for every failure: EBUSY if another process uses the file, ENOSPC, EIO
class Database
{
public:
    /// Open the file, or create it.
    explicit Database(const std::filesystem::path& path);

    /// A prepared statement.
    class Statement
    {
    public:
        Statement(Database& database, const char* sql);
        Statement(const Statement&) = delete;
        Statement& operator=(const Statement&) = delete;
        ~Statement();

        /// Run it, and call `use` for each row.
        template <typename... Values>
        void run(const std::function<void()>& use, const Values&... values)
        {
            int index = 0;
            (bind(++index, values), ...);
            step(use);
        }

        // Columns of the current row.
        bool isNull(int column) const;
        std::int64_t number(int column) const;
        std::string text(int column) const;

    private:
        void bind(int index, std::int64_t value);
        void bind(int index, std::uint64_t value) { bind(index, static_cast<std::int64_t>(value)); }
        void bind(int index, std::nullptr_t);
        void bind(int index, const std::string& value); // must live until the statement has run
        void step(const std::function<void()>& use);

        Database& m_database;
        sqlite3_stmt* m_statement = nullptr;
    };

    /// Take turns: hold this while statements run. Innermost.
    [[nodiscard]] std::unique_lock<std::mutex> lock() { return std::unique_lock(m_mutex); }

    /// Run statements that return no rows.
    void execute(const char* sql);

    /// Let what `change` does take effect as a whole, or not at all.
    void atomically(const std::function<void()>& change);

private:
    void check(int status) const;

    std::unique_ptr<sqlite3, int (*)(sqlite3*)> m_database;
    std::mutex m_mutex;
};

} // namespace storage::mount
