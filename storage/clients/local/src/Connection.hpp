#pragma once

#include "CheckedVfs.hpp"
#include "LockWait.hpp"

#include <cstddef>
#include <cstdint>
#include <filesystem>
#include <functional>
#include <optional>
#include <string>
#include <string_view>
#include <unordered_map>

struct sqlite3;
struct sqlite3_stmt;

namespace storage::clients::local
{

/// A parameter that holds bytes; borrowed.
struct Blob
{
    std::string_view bytes;
};

class Connection;

/// One run of a prepared statement. The destructor resets the statement for the next run. A statement of a Connection
/// must not have two queries at the same time.
class Query
{
public:
    /// Bind the parameters, in order. The bytes of a Blob must outlive the query. Another query stands for all columns
    /// of its current row.
    template <typename... Values>
    Query(const Connection& connection, sqlite3_stmt* statement, const Values&... values)
        : m_connection(connection)
        , m_statement(statement)
    {
        (bind(values), ...);
    }

    Query(const Query&) = delete;
    Query& operator=(const Query&) = delete;
    ~Query();

    /// Move to the next row; the first call moves to the first one.
    ///
    /// @return false when there are no more rows
    /// @throws StoreError
    bool next();

    /// Run the statement again with other parameters.
    template <typename... Values>
    void restart(const Values&... values)
    {
        reset();
        (bind(values), ...);
    }

    // Columns of the current row, numbered from 0. Bytes are valid until the query moves.
    std::int64_t integer(int column) const;
    std::string_view bytes(int column) const;
    bool isNull(int column) const;

private:
    void bind(std::int64_t value);
    void bind(Blob value);
    void bind(const std::optional<std::int64_t>& value);
    void bind(const Query& row);
    void reset() noexcept;
    void check(int code) const;

    const Connection& m_connection;
    sqlite3_stmt* const m_statement;
    int m_bound = 0; // parameters bound so far
};

/// One connection to the index, with its prepared statements. To be used by one thread at a time.
class Connection
{
public:
    /// Open an existing index.
    ///
    /// @param wait  for locks of other connections
    /// @param vfs   the file layer of SQLite
    /// @throws StoreError
    Connection(const std::filesystem::path& file, const LockWait& wait, const char* vfs = checkedVfs());
    Connection(const Connection&) = delete;
    Connection& operator=(const Connection&) = delete;
    ~Connection();

    /// Start a statement.
    ///
    /// @param sql     a string literal: the cache of prepared statements keeps a view of it
    /// @param values  integers, also optional ones, and Blobs, whose bytes must outlive the query
    template <typename... Values>
    Query query(std::string_view sql, const Values&... values)
    {
        return Query(*this, prepared(sql), values...);
    }

    /// Run a statement that returns no rows.
    template <typename... Values>
    void run(std::string_view sql, const Values&... values)
    {
        query(sql, values...).next();
    }

    /// Run statements without parameters, separated by ";". They are not cached.
    void execute(const char* sql);

    /// Let the pages of a new, empty index end in checksums.
    void reserveChecksums();

    /// Let the next statement that reads the index lock it for this connection alone, until the connection is closed.
    /// The connection then keeps SQLite's shared memory in its own memory.
    void keepOthersOut();

    /// Let the write-ahead log count up to its first damage. To be called before the index is read.
    void ignoreLogEnd();

    /// Read every page and check what it holds.
    ///
    /// @param interrupted  called often; does not throw; empty: never
    /// @throws StoreError when the index is damaged, or if the check was interrupted
    void checkPages(const std::function<bool()>& interrupted);

    /// Set how long to wait from now on for locks of other connections.
    void setWait(const LockWait& wait) { m_wait = wait; }

    /// Move what is in the write-ahead log into the index, unless another connection is in the way. Readers go on
    /// meanwhile.
    void emptyLog() noexcept;

    /// Set whether commits wait until they are on the disk. To be called outside a transaction.
    void setSynced(bool isSynced);

    /// Run a function inside the open transaction, and undo what it has done if it throws.
    ///
    /// @return false: it has thrown, and the whole transaction is rolled back if isInTransaction() is false now
    bool tryInSavepoint(const std::function<void(Connection&)>& function) noexcept;

    bool isInTransaction() const noexcept;

    /// Roll the open transaction back, if there is one.
    ///
    /// @return false when that failed: only closing the connection ends the transaction then
    bool rollBack() noexcept;

private:
    friend class Query;

    static int waitForLock(void* connection, int attempts);
    void check(int code) const; // throws StoreError unless it is SQLITE_OK, SQLITE_ROW or SQLITE_DONE
    sqlite3_stmt* prepared(std::string_view sql);

    sqlite3* m_handle = nullptr;
    std::optional<LockWait> m_wait;
    bool m_keepsOthersOut = false;
    std::optional<bool> m_isSynced;                                   // as setSynced() was called last
    std::unordered_map<std::string_view, sqlite3_stmt*> m_statements; // by SQL text
};

} // namespace storage::clients::local
