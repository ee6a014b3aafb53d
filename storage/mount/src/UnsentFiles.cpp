#include "UnsentFiles.hpp"

#include <algorithm>
#include <fstream>
#include <map>
#include <utility>

namespace storage::mount
{

namespace
{

/// Text that differs from one start of the machine to the next.
std::string bootId()
{
    std::string id;
    std::ifstream("/proc/sys/kernel/random/boot_id") >> id;
    return id;
}

Database& withTables(Database& database)
{
    database.execute("CREATE TABLE IF NOT EXISTS files (id INTEGER PRIMARY KEY, key TEXT NOT NULL, boot TEXT NOT NULL,"
                     " tag TEXT, size INTEGER NOT NULL, kept INTEGER NOT NULL) STRICT;"
                     "CREATE TABLE IF NOT EXISTS extents (file INTEGER NOT NULL, first INTEGER NOT NULL,"
                     " last INTEGER NOT NULL, PRIMARY KEY (file, first)) STRICT, WITHOUT ROWID;");
    return database;
}

} // namespace

UnsentFiles::UnsentFiles(Database& database, const std::filesystem::path& folder)
    : m_database(withTables(database))
    , m_folder(folder)
    , m_put(database, "INSERT INTO files VALUES (?1, ?2, ?3, ?4, ?5, ?6) ON CONFLICT (id) DO UPDATE SET"
                      " key = ?2, boot = ?3, tag = ?4, size = ?5, kept = ?6")
    , m_wrote(database, "INSERT INTO extents VALUES (?1, ?2, ?3)")
    , m_swallow(database, "DELETE FROM extents WHERE file = ?1 AND first BETWEEN ?2 AND ?3")
    , m_forget(database, "DELETE FROM files WHERE id = ?1")
    , m_forgetExtents(database, "DELETE FROM extents WHERE file = ?1")
{
    Database::Statement lastId(database, "SELECT max(id) FROM files");
    lastId.run([&] { m_lastId = lastId.number(0); });
}

std::vector<UnsentFile> UnsentFiles::recover()
{
    const auto lock = m_database.lock();
    std::map<std::int64_t, UnsentFile> files;
    Database::Statement select(m_database, "SELECT id, key, boot, tag, size, kept FROM files");
    select.run(
        [&]
        {
            UnsentFile file{select.number(0), select.text(1), std::nullopt,
                static_cast<std::uint64_t>(select.number(5)), {}, select.text(2) == bootId()};
            if (!select.isNull(3))
            {
                file.before = ObjectVersion{select.text(3), static_cast<std::uint64_t>(select.number(4))};
            }
            files.emplace(file.id, std::move(file));
        });
    Database::Statement extents(m_database, "SELECT file, first, last FROM extents");
    extents.run(
        [&]
        {
            if (const auto file = files.find(extents.number(0)); file != files.end())
            {
                file->second.written.add(Extent(
                    static_cast<std::uint64_t>(extents.number(1)), static_cast<std::uint64_t>(extents.number(2))));
            }
        });
    for (const auto& entry : std::filesystem::directory_iterator(m_folder))
    {
        const std::string name = entry.path().filename();
        const bool isLocalFile = std::ranges::all_of(name, [](char c) { return c >= '0' && c <= '9'; });
        if (isLocalFile && !files.contains(std::stoll(name)))
        {
            std::filesystem::remove(entry.path());
        }
    }
    std::vector<UnsentFile> result;
    result.reserve(files.size());
    for (auto& [id, file] : files)
    {
        result.push_back(std::move(file));
    }
    return result;
}

std::int64_t UnsentFiles::nextId()
{
    const auto lock = m_database.lock();
    return ++m_lastId;
}

std::filesystem::path UnsentFiles::pathOf(std::int64_t id) const
{
    return m_folder / std::to_string(id);
}

void UnsentFiles::put(const UnsentFile& file)
{
    static const std::string boot = bootId();
    const auto lock = m_database.lock();
    const std::uint64_t size = file.before ? file.before->size : 0;
    file.before ? m_put.run({}, file.id, file.key, boot, file.before->tag, size, file.kept)
                : m_put.run({}, file.id, file.key, boot, nullptr, size, file.kept);
}

void UnsentFiles::wrote(std::int64_t id, const Extent& bytes)
{
    const auto lock = m_database.lock();
    m_database.atomically(
        [&]
        {
            m_swallow.run({}, id, bytes.lower(), bytes.upper());
            m_wrote.run({}, id, bytes.lower(), bytes.upper());
        });
}

void UnsentFiles::forget(std::int64_t id)
{
    const auto lock = m_database.lock();
    m_database.atomically(
        [&]
        {
            m_forget.run({}, id);
            m_forgetExtents.run({}, id);
        });
}

} // namespace storage::mount
