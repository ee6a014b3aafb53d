#include "FolderMoves.hpp"

#include "Failure.hpp"
#include "InParallel.hpp"

#include <storage/clients/common/KeyRules.hpp>
#include <storage/cloudprovider/CloudExceptions.hpp>
#include <storage/cloudprovider/Logger.hpp>

#include <foundation/log/Severity.hpp>

#include <fmt/format.h>

#include <cerrno>
#include <mutex>
#include <utility>

namespace storage::mount
{

namespace
{

Database& withTables(Database& database)
{
    database.execute("CREATE TABLE IF NOT EXISTS moves (id INTEGER PRIMARY KEY, source TEXT NOT NULL,"
                     " target TEXT NOT NULL, copied INTEGER NOT NULL DEFAULT 0) STRICT;"
                     "CREATE TABLE IF NOT EXISTS moved (move INTEGER NOT NULL, name TEXT NOT NULL,"
                     " PRIMARY KEY (move, name)) STRICT, WITHOUT ROWID;");
    return database;
}

} // namespace

FolderMoves::FolderMoves(Database& database, MountedStore& store)
    : m_database(withTables(database))
    , m_store(store)
{
}

std::map<std::string, ObjectVersion> FolderMoves::move(
    const std::string& source, const std::string& target, std::size_t maxKeys)
{
    Move move{0, source, target, {}};
    for (const std::string& key : m_store.keysBelow(source, maxKeys + 1))
    {
        move.names.push_back(key.substr(source.size()));
    }
    if (move.names.size() > maxKeys)
    {
        throw Failure(EXDEV, fmt::format("{} has more than {} files", clients::quoted(source), maxKeys));
    }
    {
        const auto lock = m_database.lock();
        m_database.atomically(
            [&]
            {
                Database::Statement add(m_database, "INSERT INTO moves (source, target) VALUES (?1, ?2) RETURNING id");
                add.run([&] { move.id = add.number(0); }, source, target);
                Database::Statement addName(m_database, "INSERT INTO moved VALUES (?1, ?2)");
                for (const std::string& name : move.names)
                {
                    addName.run({}, move.id, name);
                }
            });
    }
    std::map<std::string, ObjectVersion> copies;
    try
    {
        copies = copyAll(move);
        setCopied(move);
    }
    catch (...)
    {
        removeAll(move, target); // if this fails, too, the next mount completes the move
        forget(move);
        throw;
    }
    try
    {
        removeAll(move, source);
        forget(move);
    }
    catch (...)
    {
        cloudprovider::getLogger().write(foundation::log::severity::warning,
            fmt::format("{} was copied to {}, but deleting it failed and will be tried again: {}",
                clients::quoted(source), clients::quoted(target), Failure::current().what()));
    }
    return copies;
}

void FolderMoves::resume()
{
    std::vector<std::pair<Move, bool>> moves;
    {
        const auto lock = m_database.lock();
        Database::Statement select(m_database, "SELECT id, source, target, copied FROM moves");
        select.run(
            [&] {
                moves.push_back({{select.number(0), select.text(1), select.text(2), {}}, select.number(3) != 0});
            });
        Database::Statement names(m_database, "SELECT name FROM moved WHERE move = ?1");
        for (auto& [move, isCopied] : moves)
        {
            names.run([&, &found = move.names] { found.push_back(names.text(0)); }, move.id);
        }
    }
    for (const auto& [move, isCopied] : moves)
    {
        if (!isCopied)
        {
            copyAll(move);
            setCopied(move);
        }
        removeAll(move, move.source);
        forget(move);
    }
}

std::map<std::string, ObjectVersion> FolderMoves::copyAll(const Move& move)
{
    std::mutex mutex;
    std::map<std::string, ObjectVersion> copies;
    inParallel(move.names.size(),
        [&](std::size_t index)
        {
            const std::string key = move.target + move.names[index];
            const ObjectVersion copy = m_store.copy(move.source + move.names[index], key);
            const std::lock_guard lock(mutex);
            copies.emplace(key, copy);
        });
    return copies;
}

void FolderMoves::removeAll(const Move& move, const std::string& folder)
{
    // The folder itself last: it exists as long as there is anything in it.
    inParallel(move.names.size(),
        [&](std::size_t index) { move.names[index].empty() ? void() : m_store.remove(folder + move.names[index]); });
    m_store.remove(folder);
}

void FolderMoves::setCopied(const Move& move)
{
    const auto lock = m_database.lock();
    Database::Statement(m_database, "UPDATE moves SET copied = 1 WHERE id = ?1").run({}, move.id);
}

void FolderMoves::forget(const Move& move)
{
    const auto lock = m_database.lock();
    m_database.atomically(
        [&]
        {
            Database::Statement(m_database, "DELETE FROM moves WHERE id = ?1").run({}, move.id);
            Database::Statement(m_database, "DELETE FROM moved WHERE move = ?1").run({}, move.id);
        });
}

} // namespace storage::mount
