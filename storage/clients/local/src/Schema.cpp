#include "Schema.hpp"

#include "Connection.hpp"
#include "Files.hpp"
#include "StoreError.hpp"

#include <fmt/format.h>

#include <cerrno>
#include <fcntl.h>
#include <sys/file.h>

namespace storage::clients::local
{

namespace
{

constexpr std::int64_t applicationId = 0x434C4653; // "CLFS"; tells our index from any other SQLite file
constexpr std::int64_t schemaVersion = 1;

// Keys are blobs so that SQLite compares them byte by byte. An object without bytes has no parts. The bytes of a
// content are in `data`, or in a file if that is null; contents are never changed, so objects and uploads share them,
// and `refs` counts the rows of both that name one. Numbers come from `store` and are never used twice: an upload's
// becomes that of the object it is completed to.
constexpr const char* createTables = R"(
    CREATE TABLE store (next_id INTEGER NOT NULL);
    INSERT INTO store VALUES (1);
    CREATE TABLE objects (
        key BLOB PRIMARY KEY NOT NULL,
        id INTEGER NOT NULL,
        size INTEGER NOT NULL,
        modified INTEGER NOT NULL -- microseconds since 1970, UTC
    ) WITHOUT ROWID;
    CREATE TABLE object_parts (
        object INTEGER NOT NULL,
        offset INTEGER NOT NULL,
        content INTEGER NOT NULL,
        PRIMARY KEY (object, offset)
    ) WITHOUT ROWID;
    CREATE TABLE uploads (
        id INTEGER PRIMARY KEY,
        key BLOB NOT NULL,
        created INTEGER NOT NULL -- as objects.modified
    );
    CREATE TABLE upload_parts (
        upload INTEGER NOT NULL,
        number INTEGER NOT NULL,
        content INTEGER NOT NULL,
        PRIMARY KEY (upload, number)
    ) WITHOUT ROWID;
    CREATE TABLE contents (
        id INTEGER PRIMARY KEY,
        refs INTEGER NOT NULL,
        size INTEGER NOT NULL,
        session INTEGER, -- who wrote the file, part of its name
        data BLOB
    );
)";

std::int64_t number(Connection& connection, std::string_view question)
{
    Query query = connection.query(question);
    query.next();
    return query.integer(0);
}

void create(Connection& connection)
{
    connection.execute("PRAGMA journal_mode = WAL");
    connection.execute("PRAGMA synchronous = FULL");
    connection.execute("BEGIN IMMEDIATE");
    connection.execute(createTables);
    connection.execute(fmt::format("PRAGMA application_id = {}", applicationId).c_str());
    connection.execute(fmt::format("PRAGMA user_version = {}", schemaVersion).c_str());
    connection.execute("COMMIT");
}

} // namespace

std::filesystem::path indexFile(const std::filesystem::path& directory)
{
    return directory / "index.sqlite";
}

void prepareIndex(const std::filesystem::path& directory)
{
    const FileHandle folder = openFolder(directory);
    lockFile(folder, directory);

    const std::filesystem::path file = indexFile(directory);
    if (!std::filesystem::exists(file))
    {
        if (!std::filesystem::is_empty(directory))
        {
            throw StoreError(
                StoreError::Kind::NotAStore, "the directory is no store: it has other content and no index");
        }
        // SQLite would let others read it. No connection has the file open yet, whose locks closing it would drop.
        createFile(file);
        syncFile(folder, directory);
    }

    Connection connection(file);
    connection.keepFilesOnClose(); // a store that is refused stays as it is
    const std::int64_t application = number(connection, "PRAGMA application_id");
    if (application == 0 && number(connection, "SELECT count(*) FROM sqlite_schema") == 0)
    {
        // Contents are made after the index, so that this is an index that lost its pages and not a creation that
        // was cut short. Beginning anew would collect the contents.
        if (std::filesystem::exists(directory / "contents"))
        {
            throw StoreError("the index is damaged: it is empty, and there are contents");
        }
        create(connection);
    }
    else if (application != applicationId)
    {
        throw StoreError(StoreError::Kind::NotAStore, "the directory is no store: its index is another program's");
    }
    else if (const std::int64_t version = number(connection, "PRAGMA user_version"); version != schemaVersion)
    {
        throw StoreError(
            fmt::format("the store has version {}, this program knows version {} only", version, schemaVersion));
    }
}

} // namespace storage::clients::local
