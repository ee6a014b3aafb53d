#include "Schema.hpp"

#include "Connection.hpp"
#include "Files.hpp"
#include "IndexRepair.hpp"
#include "StoreError.hpp"

#include <fmt/format.h>

#include <cerrno>
#include <cstdio>
#include <optional>
#include <string>
#include <system_error>
#include <utility>

namespace storage::clients::local
{

namespace
{

constexpr std::int64_t applicationId = 0x434C4653; // "CLFS": distinguishes our index from other SQLite files
constexpr std::int64_t schemaVersion = 2;

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
    CREATE TABLE removed (object INTEGER PRIMARY KEY); -- removed or replaced; has parts that are still to be dropped
    CREATE TABLE uploads (
        id INTEGER PRIMARY KEY,
        key BLOB NOT NULL,
        created INTEGER NOT NULL, -- like objects.modified
        session INTEGER NOT NULL, -- of the client that began it; the upload ends with that client
        base INTEGER -- the object that the new one is made from
    );
    CREATE TABLE upload_parts (
        upload INTEGER NOT NULL,
        number INTEGER NOT NULL,
        content INTEGER NOT NULL,
        source INTEGER, -- the object that it was copied from
        PRIMARY KEY (upload, number)
    ) WITHOUT ROWID;
    CREATE TABLE contents (
        id INTEGER PRIMARY KEY,
        refs INTEGER NOT NULL,
        size INTEGER NOT NULL,
        session INTEGER, -- of the client that wrote the file; part of its name
        hashes BLOB, -- of the blocks of the file; null: version 1 has stored it
        data BLOB
    );
)";

std::int64_t selectInteger(Connection& connection, std::string_view sql)
{
    Query query = connection.query(sql);
    query.next();
    return query.integer(0);
}

std::string selectText(Connection& connection, std::string_view sql)
{
    Query query = connection.query(sql);
    query.next();
    return std::string(query.bytes(0));
}

void checkApplication(Connection& connection)
{
    if (selectInteger(connection, "PRAGMA application_id") != applicationId)
    {
        throw StoreError(
            StoreError::Kind::NotAStore, "the directory is not a store: its index belongs to another program");
    }
}

void create(Connection& connection)
{
    connection.reserveChecksums();
    connection.execute(fmt::format("PRAGMA page_size = {}", indexPageSize).c_str());
    connection.execute("PRAGMA auto_vacuum = INCREMENTAL");
    connection.execute("BEGIN IMMEDIATE");
    connection.execute(createTables);
    connection.execute(fmt::format("PRAGMA application_id = {}", applicationId).c_str());
    connection.execute(fmt::format("PRAGMA user_version = {}", schemaVersion).c_str());
    connection.execute("COMMIT");
}

// Each query of version 1, and the statement that stores its rows in this version.
constexpr std::pair<const char*, const char*> copiesOfVersion1[] = {
    {"SELECT next_id FROM store", "UPDATE store SET next_id = ?"},
    {"SELECT key, id, size, modified FROM objects",
        "INSERT INTO objects (key, id, size, modified) VALUES (?, ?, ?, ?)"},
    {"SELECT object, offset, content FROM object_parts",
        "INSERT INTO object_parts (object, offset, content) VALUES (?, ?, ?)"},
    {"SELECT id, key, created FROM uploads", "INSERT INTO uploads (id, key, created, session) VALUES (?, ?, ?, 0)"},
    {"SELECT upload, number, content FROM upload_parts",
        "INSERT INTO upload_parts (upload, number, content) VALUES (?, ?, ?)"},
    {"SELECT id, refs, size, session, data FROM contents",
        "INSERT INTO contents (id, refs, size, session, data) VALUES (?, ?, ?, ?, ?)"}};

// Replace an index of version 1, whose pages have no checksums. Until the last step, the old index is complete.
//
// @param error  why the index cannot be read with checksums; thrown if it does not have version 1
void upgrade(
    const std::filesystem::path& directory, const FileHandle& folder, const LockWait& wait, const StoreError& error)
{
    constexpr const char* unchecked = "unix";
    const std::filesystem::path file = indexFile(directory);
    if (std::filesystem::file_size(file) < indexPageSize)
    {
        throw StoreError(error); // truncated; SQLite would delete its log
    }
    for (const char* suffix : {"-wal", "-shm", logEndSuffix})
    {
        if (isIrregular(file.native() + suffix))
        {
            throw StoreError(error); // else SQLite would use it
        }
    }
    std::error_code ignored; // there is no such file
    if (const auto size = std::filesystem::file_size(file.native() + logEndSuffix, ignored); size > 0 && !ignored)
    {
        throw StoreError(error); // it had a log with checksums
    }
    {
        Connection old(file, wait, unchecked);
        checkApplication(old);
        if (selectInteger(old, "PRAGMA user_version") != 1)
        {
            throw StoreError(error);
        }
    }
    Connection old(file, wait, unchecked);
    if (selectText(old, "PRAGMA journal_mode = DELETE") != "delete") // it also merges the log into the index
    {
        throw StoreError("an older version of this program uses the store; it can be upgraded when no program does");
    }
    NewIndex next(directory);
    {
        Connection upgraded(next.file(), wait);
        NewIndex::begin(upgraded);
        for (const auto& [read, write] : copiesOfVersion1)
        {
            Query row = old.query(read);
            Query stored = upgraded.query(write);
            while (row.next())
            {
                stored.restart(row);
                stored.next();
            }
        }
        upgraded.execute("COMMIT");
    }
    NewIndex::install(directory, folder);
}

} // namespace

void lockFolder(const FileHandle& folder, const std::filesystem::path& path, LockWait wait)
{
    while (!tryLockFile(folder, path))
    {
        if (!wait.pause())
        {
            wait.fail("the directory", findLockHolder(path));
        }
    }
}

NewIndex::NewIndex(const std::filesystem::path& directory)
    : m_file(newIndexFile(directory))
{
    remove(); // of an attempt that was killed
    createFile(m_file);
}

NewIndex::~NewIndex()
{
    remove();
}

void NewIndex::remove() const
{
    for (const char* suffix : {"", "-journal", logEndSuffix})
    {
        removeFile(m_file.native() + suffix);
    }
}

void NewIndex::begin(Connection& index)
{
    create(index);
    index.execute("PRAGMA cache_spill = ON"); // allowed without a log, and the index may be large
    index.execute("BEGIN IMMEDIATE");
}

void NewIndex::install(const std::filesystem::path& directory, const FileHandle& folder)
{
    const std::filesystem::path file = indexFile(directory);
    if (std::rename(newIndexFile(directory).c_str(), file.c_str()) != 0)
    {
        throw systemError("renaming to \"" + file.native() + '"', errno);
    }
    syncFile(folder, directory);
}

std::filesystem::path indexFile(const std::filesystem::path& directory)
{
    return directory / "index.sqlite";
}

std::filesystem::path newIndexFile(const std::filesystem::path& directory)
{
    return directory / "index.sqlite.new";
}

void prepareIndex(const std::filesystem::path& directory, bool createMissing, const LockLimits& limits)
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
    const LockWait wait(limits);
    // Opening a complete store must not wait for a process that does the same. The contents folder is created last.
    bool isLocked = !std::filesystem::exists(directory / "contents");
    if (isLocked)
    {
        lockFolder(folder, directory, wait);
    }

    const std::filesystem::path file = indexFile(directory);
    if (!std::filesystem::exists(file) && std::filesystem::exists(newIndexFile(directory)))
    {
        if (!isLocked)
        {
            lockFolder(folder, directory, wait); // the repair may be in progress
            isLocked = true;
        }
        finishRepair(directory, folder);
    }
    const std::filesystem::file_status status = std::filesystem::status(file);
    if (!std::filesystem::exists(status))
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
    else if (!std::filesystem::is_regular_file(status)) // SQLite could wait for ever
    {
        throw damage("the index is not a regular file");
    }

    std::optional<Connection> connection;
    bool hasTables = false;
    while (!connection)
    {
        try
        {
            connection.emplace(file, wait);
            hasTables = selectInteger(*connection, "SELECT count(*) FROM sqlite_schema") > 0;
        }
        catch (const StoreError& error)
        {
            connection.reset();
            throwUnlessDamage(error);
            if (isLocked)
            {
                upgrade(directory, folder, wait, error);
            }
            else
            {
                lockFolder(folder, directory, wait); // another process may be upgrading the index
                isLocked = true;
            }
        }
    }
    if (!hasTables && selectInteger(*connection, "PRAGMA application_id") == 0)
    {
        // The contents folder is created after the index. So this is not an interrupted creation: the index has lost
        // its pages. A new index would make all contents orphans, which are removed.
        if (std::filesystem::exists(directory / "contents"))
        {
            throw damage("the index is empty although there are content files");
        }
        requireCreation();
        create(*connection);
    }
    checkApplication(*connection);
    if (const std::int64_t version = selectInteger(*connection, "PRAGMA user_version"); version != schemaVersion)
    {
        throw StoreError(fmt::format(
            "the store has version {}; this program supports only versions 1 and {}", version, schemaVersion));
    }
    connection->execute("PRAGMA journal_mode = WAL"); // the last step of a creation; else it changes nothing
}

} // namespace storage::clients::local
