#include "IndexRepair.hpp"

#include "Connection.hpp"
#include "ContentFiles.hpp"
#include "Files.hpp"
#include "Schema.hpp"
#include "StoreError.hpp"

#include <storage/clients/common/KeyRules.hpp>

#include <fmt/format.h>

#include <algorithm>
#include <optional>
#include <string>
#include <vector>

namespace storage::clients::local
{

namespace
{

struct Object
{
    std::string key;
    std::int64_t id = 0;
    std::int64_t size = 0;
    std::int64_t modified = 0;
};

// Read rows until the end or until damage.
//
// @return whether all rows could be read
bool readRows(Query query, const std::function<bool(const Query&)>& take)
try
{
    while (query.next() && take(query))
    {
    }
    return true;
}
catch (const StoreError& error)
{
    throwUnlessDamage(error);
    return false;
}

class Rebuild
{
public:
    // @param removed  where to add the objects that are lost
    Rebuild(Connection& old, Connection& fresh, std::vector<Damage>& removed, const std::function<bool()>& interrupted)
        : m_old(old)
        , m_fresh(fresh)
        , m_removed(removed)
        , m_interrupted(interrupted)
    {
    }

    // Copy what can be read.
    //
    // @return what is lost without its keys being known; empty: nothing
    std::string run();

    // No file in contents/ may get a name that is there already.
    void finish(const std::vector<FileName>& files);

private:
    void copyObject(const Object& object);
    bool copyParts(std::int64_t object);

    Connection& m_old;
    Connection& m_fresh;
    std::vector<Damage>& m_removed;
    const std::function<bool()>& m_interrupted;
    std::int64_t m_maxId = 0;
};

std::string Rebuild::run()
{
    std::optional<std::string> first; // the last key before the damage
    std::optional<std::string> last;  // the first key after it
    const auto toObject = [](const Query& row) {
        return Object{std::string(row.bytes(0)), row.integer(1), row.integer(2), row.integer(3)};
    };
    const bool isComplete = readRows(m_old.query("SELECT key, id, size, modified FROM objects ORDER BY key"),
        [&](const Query& row)
        {
            const Object object = toObject(row);
            first = object.key;
            copyObject(object);
            return true;
        });
    if (isComplete)
    {
        return {};
    }
    readRows(m_old.query("SELECT key, id, size, modified FROM objects ORDER BY key DESC"),
        [&](const Query& row)
        {
            const Object object = toObject(row);
            if (first && object.key <= *first)
            {
                return false;
            }
            last = object.key;
            copyObject(object);
            return true;
        });
    return "all objects" + (first ? " after " + clients::quoted(*first) : "") + (first && last ? " and" : "") +
           (last ? " before " + clients::quoted(*last) : "");
}

void Rebuild::finish(const std::vector<FileName>& files)
{
    readRows(m_old.query("SELECT next_id FROM store"),
        [&](const Query& row)
        {
            m_maxId = std::max(m_maxId, row.integer(0));
            return true;
        });
    for (const FileName file : files)
    {
        m_maxId = std::max(m_maxId, file.content);
    }
    m_fresh.run("UPDATE store SET next_id = ?", m_maxId + 1);
    m_fresh.execute("COMMIT");
}

void Rebuild::copyObject(const Object& object)
{
    if (m_interrupted && m_interrupted())
    {
        throw StoreError("the repair of the index was interrupted; nothing was replaced");
    }
    m_fresh.execute("SAVEPOINT object");
    if (copyParts(object.id))
    {
        m_fresh.run("INSERT INTO objects (key, id, size, modified) VALUES (?, ?, ?, ?)", Blob{object.key}, object.id,
            object.size, object.modified);
        m_maxId = std::max(m_maxId, object.id);
    }
    else
    {
        m_fresh.execute("ROLLBACK TO object");
        m_removed.push_back({Damage::Kind::Object, object.key, "the index has lost its parts", "removed"});
    }
    m_fresh.execute("RELEASE object");
}

bool Rebuild::copyParts(std::int64_t object)
{
    bool isWhole = true;
    const bool isReadable =
        readRows(m_old.query("SELECT part.object, part.offset, part.content, content.id FROM object_parts AS part"
                             " LEFT JOIN contents AS content ON content.id = part.content WHERE part.object = ?",
                     object),
            [&](const Query& row)
            {
                m_fresh.run("INSERT INTO object_parts (object, offset, content) VALUES (?, ?, ?)", row.integer(0),
                    row.integer(1), row.integer(2));
                isWhole = !row.isNull(3);
                m_maxId = std::max(m_maxId, row.integer(2));
                return isWhole;
            });
    return isReadable && isWhole &&
           readRows(m_old.query("SELECT id, 1, size, session, hashes, data FROM object_parts AS part"
                                " JOIN contents ON id = part.content WHERE part.object = ?",
                        object),
               [&](const Query& row)
               {
                   m_fresh.run("INSERT INTO contents (id, refs, size, session, hashes, data) VALUES (?, ?, ?, ?, ?, ?)"
                               " ON CONFLICT (id) DO UPDATE SET refs = refs + 1",
                       row);
                   return true;
               });
}

// Open the old index for this process alone.
//
// @param wholeLog  refuse a log that is damaged; else it counts up to the first damage
// @return whether it can be read
bool open(std::optional<Connection>& connection, const std::filesystem::path& file, const LockWait& wait, bool wholeLog)
try
{
    connection.emplace(file, wait);
    if (!wholeLog)
    {
        connection->ignoreLogEnd();
    }
    connection->keepOthersOut();
    connection->query("SELECT 1 FROM sqlite_schema").next();
    return true;
}
catch (const StoreError& error)
{
    throwUnlessDamage(error);
    return false;
}

bool isIntact(Connection& index, const std::function<bool()>& interrupted)
try
{
    index.checkPages(interrupted);
    return true;
}
catch (const StoreError& error)
{
    throwUnlessDamage(error);
    return false;
}

// Create a folder for what this repair moves.
std::filesystem::path newFolder(const std::filesystem::path& parent)
{
    for (int number = 1;; ++number)
    {
        std::filesystem::path folder = parent / fmt::format("index-{}", number);
        if (!std::filesystem::exists(folder) || std::filesystem::is_empty(folder))
        {
            makeFolders(folder);
            return folder;
        }
    }
}

// Move a file beside the index.
//
// @return whether it was there
bool moveAside(
    const std::filesystem::path& file, const std::filesystem::path& folder, const std::string& addedToName = {})
{
    const bool exists = std::filesystem::exists(std::filesystem::symlink_status(file));
    if (exists)
    {
        std::filesystem::rename(file, folder / (file.filename().native() + addedToName));
    }
    return exists;
}

// Replace the index by the new one, which is complete. The index goes first: without it, the new one counts.
void replaceIndex(const std::filesystem::path& directory, const FileHandle& folder, const std::filesystem::path& file,
    const std::filesystem::path& aside)
{
    for (const char* suffix : {"", "-wal", "-shm", logEndSuffix})
    {
        moveAside(file.native() + suffix, aside);
    }
    NewIndex::install(directory, folder);
}

// Move the content files of lost objects aside.
void moveUnnamedFiles(const std::filesystem::path& directory, const std::filesystem::path& aside, const LockWait& wait)
{
    Connection index(indexFile(directory), wait);
    index.run("BEGIN IMMEDIATE"); // others publish files in their transactions
    const ContentFiles files(directory);
    for (const FileName name : files.list())
    {
        if (!index
                 .query("SELECT 1 FROM contents WHERE id = ? AND session = ?", name.content,
                     static_cast<std::int64_t>(name.session))
                 .next())
        {
            const std::filesystem::path path = files.path(name);
            std::filesystem::rename(path, aside / path.filename());
        }
    }
}

} // namespace

void repairIndex(const std::filesystem::path& directory, const LockLimits& limits, const std::string& reason,
    const std::function<void(const Damage&)>& report)
{
    const std::filesystem::path file = std::filesystem::canonical(indexFile(directory)); // as SQLite takes it
    const LockWait wait(limits);
    const FileHandle folder = openFolder(directory);
    lockFolder(folder, directory, wait);
    const std::filesystem::path aside = newFolder(directory / "damaged");
    std::vector<std::string> lost;
    bool hasWholeLog = true;
    for (const char* suffix : {"-shm", "-wal", logEndSuffix})
    {
        const std::filesystem::path other = file.native() + suffix;
        if (isIrregular(other) && moveAside(other, aside, ".irregular"))
        {
            hasWholeLog = hasWholeLog && suffix == std::string("-shm"); // which is made from the log
        }
    }
    std::optional<Connection> old; // keeps others out until its files are replaced
    if (hasWholeLog && open(old, file, wait, true))
    {
        if (std::filesystem::is_empty(aside) && isIntact(*old, limits.interrupted))
        {
            std::filesystem::remove(aside);
            return; // another process has repaired it meanwhile
        }
    }
    else
    {
        lost.emplace_back("the last changes");
        if (isIrregular(file) || !open(old, file, wait, false))
        {
            throw damage("nothing can be read from the index");
        }
    }
    std::vector<Damage> removed;
    NewIndex next(directory);
    {
        Connection fresh(next.file(), wait);
        NewIndex::begin(fresh);
        Rebuild rebuild(*old, fresh, removed, limits.interrupted);
        if (const std::string objects = rebuild.run(); !objects.empty())
        {
            lost.push_back(objects);
        }
        rebuild.finish(ContentFiles(directory).list());
    }
    replaceIndex(directory, folder, file, aside);
    old.reset();
    std::for_each(removed.begin(), removed.end(), report);
    lost.emplace_back("open uploads");
    report({Damage::Kind::Index, {}, reason,
        fmt::format("replaced; lost are {}; the old one is in \"{}\"", fmt::join(lost, " and "), aside.native())});
    moveUnnamedFiles(directory, aside, LockWait(limits)); // a long repair has used up the other wait
}

void finishRepair(const std::filesystem::path& directory, const FileHandle& folder)
{
    const std::filesystem::path file = indexFile(directory);
    const std::filesystem::path next = newIndexFile(directory);
    const bool isComplete = std::filesystem::exists(next) && !std::filesystem::exists(next.native() + "-journal");
    if (!std::filesystem::exists(file) && isComplete)
    {
        replaceIndex(directory, folder, file, newFolder(directory / "damaged"));
    }
}

} // namespace storage::clients::local
