#pragma once

#include <cstddef>
#include <cstdint>
#include <filesystem>
#include <string>
#include <string_view>
#include <unordered_map>

struct sqlite3;
struct sqlite3_stmt;

namespace storage::clients::local
{

/// A column or parameter that holds bytes; borrowed.
struct Blob
{
    std::string_view bytes;
};

/// One run of a prepared statement. Gives the statement back, ready for the next run, when it ends; the statement of
/// a Connection can be run once at a time.
class Query
{
public:
    /// Bind the parameters, in order. The bytes of a Blob must live as long as the query.
    template <typename... Values>
    explicit Query(sqlite3_stmt* statement, const Values&... values)
        : m_statement(statement)
    {
        (bind(values), ...);
    }

    Query(const Query&) = delete;
    Query& operator=(const Query&) = delete;
    ~Query();

    /// Go to the next row, the first one at first.
    ///
    /// @return whether there is one
    /// @throws StoreError
    bool next();

    /// Begin again with other parameters.
    template <typename... Values>
    void restart(const Values&... values)
    {
        reset();
        (bind(values), ...);
    }

    // Columns of the present row, from 0 on. Bytes are valid until the query moves.
    std::int64_t integer(int column) const;
    std::string_view bytes(int column) const;
    bool isNull(int column) const;

private:
    void bind(std::int64_t value);
    void bind(Blob value);
    void bind(std::nullptr_t null);
    void reset() noexcept;
    [[noreturn]] void fail(int code) const;

    sqlite3_stmt* const m_statement;
    int m_bound = 0; // parameters bound so far
};

/// One connection to the index, with the statements prepared on it. For one thread at a time.
class Connection
{
public:
    /// Open the index, and create nothing that is missing.
    ///
    /// @throws StoreError
    explicit Connection(const std::filesystem::path& file);
    Connection(const Connection&) = delete;
    Connection& operator=(const Connection&) = delete;
    ~Connection();

    /// Start a statement. `sql` is a literal: the statement stays prepared under its text. Values are integers, Blobs,
    /// whose bytes must outlive the query, and nullptr for NULL.
    template <typename... Values>
    Query query(std::string_view sql, const Values&... values)
    {
        return Query(prepared(sql), values...);
    }

    /// Run a statement that gives no rows.
    template <typename... Values>
    void run(std::string_view sql, const Values&... values)
    {
        query(sql, values...).next();
    }

    /// Run statements that are used once and take no values, separated by ";".
    void execute(const char* sql);

    /// Leave the files alone when the last connection closes, instead of tidying them up.
    void keepFilesOnClose();

    /// End the open transaction, if there is one, without its effect.
    ///
    /// @return false when that failed: only closing the connection will end it
    bool rollBack() noexcept;

private:
    sqlite3_stmt* prepared(std::string_view sql);

    sqlite3* m_handle = nullptr;
    std::unordered_map<std::string_view, sqlite3_stmt*> m_statements; // by their text
};

} // namespace storage::clients::local
