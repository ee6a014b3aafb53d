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

constexpr std::int64_t applicationId = 0x434C4653; // "CLFS": distinguishes our index from other SQLite files
constexpr std::int64_t schemaVersion = 1;

// Keys are blobs so that SQLite compares them byte by byte. An empty object has no parts. A row of `contents` has the
// bytes of a part in `data`, or in a file if `data` is null. They never change, so objects and uploads can share them;
// `refs` counts the rows of object_parts and upload_parts that refer to the row. The ids of objects and contents come
// from `store`, those of uploads are random; none is reused.
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
        created INTEGER NOT NULL -- like objects.modified
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
        session INTEGER, -- of the client that wrote the file; part of its name
        data BLOB
    );
)";

std::int64_t selectInteger(Connection& connection, std::string_view sql)
{
    Query query = connection.query(sql);
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

void prepareIndex(const std::filesystem::path& directory, bool createMissing)
{
    const auto requireCreation = [&]
    {
        if (!createMissing)
        {
            throw StoreError(StoreError::Kind::NotFound, "there is no store in this directory");
        }
    };
    if (!std::filesystem::exists(directory))
    {
        requireCreation();
    }
    makeFolders(directory);
    const FileHandle folder = openFolder(directory);
    lockFile(folder, directory);

    const std::filesystem::path file = indexFile(directory);
    if (!std::filesystem::exists(file))
    {
        if (!std::filesystem::is_empty(directory))
        {
            throw StoreError(
                StoreError::Kind::NotAStore, "the directory is not a store: it has other content and no index");
        }
        requireCreation();
        // SQLite would create a file that other users can read. No connection has it open yet: closing our handle would
        // drop the locks of such a connection.
        createFile(file);
        syncFile(folder, directory);
    }

    Connection connection(file);
    connection.keepLogOnClose(); // a store that is refused must stay unchanged
    const std::int64_t application = selectInteger(connection, "PRAGMA application_id");
    if (application == 0 && selectInteger(connection, "SELECT count(*) FROM sqlite_schema") == 0)
    {
        // The contents folder is created after the index. So this is not an interrupted creation: the index has lost
        // its pages. A new index would make all contents orphans, which are removed.
        if (std::filesystem::exists(directory / "contents"))
        {
            throw StoreError("the index is damaged: it is empty although there are content files");
        }
        requireCreation();
        create(connection);
    }
    else if (application != applicationId)
    {
        throw StoreError(
            StoreError::Kind::NotAStore, "the directory is not a store: its index belongs to another program");
    }
    else if (const std::int64_t version = selectInteger(connection, "PRAGMA user_version"); version != schemaVersion)
    {
        throw StoreError(
            fmt::format("the store has version {}; this program supports only version {}", version, schemaVersion));
    }
}

} // namespace storage::clients::local
