#include "FolderMoves.hpp"

#include "Failure.hpp"
#include "InParallel.hpp"

#include <storage/clients/common/KeyRules.hpp>
#include <storage/cloudprovider/CloudExceptions.hpp>
#include <storage/cloudprovider/Logger.hpp>

#include <foundation/log/Severity.hpp>

#include <fmt/format.h>

#include <cerrno>
#include <utility>

namespace storage::mount
{

namespace
{

Database& withTables(Database& database)
{
    database.execute("CREATE TABLE IF NOT EXISTS folder_moves (id INTEGER PRIMARY KEY, source TEXT NOT NULL,"
                     " target TEXT NOT NULL, state INTEGER NOT NULL) STRICT;"
                     "CREATE TABLE IF NOT EXISTS moved_objects (move INTEGER NOT NULL, name TEXT NOT NULL,"
                     " source_tag TEXT, target_tag TEXT, target_size INTEGER, PRIMARY KEY (move, name))"
                     " STRICT, WITHOUT ROWID;");
    return database;
}

void warn(const std::string& text)
{
    cloudprovider::getLogger().write(foundation::log::severity::warning, text);
}

} // namespace

/// The time in which a recorded move is in progress.
class FolderMoves::Active
{
public:
    Active(FolderMoves& moves, std::int64_t id)
        : m_moves(moves)
        , m_id(id)
    {
    }
    Active(const Active&) = delete;
    Active& operator=(const Active&) = delete;
    ~Active()
    {
        const auto lock = m_moves.m_database.lock();
        m_moves.m_active.erase(m_id);
    }

private:
    FolderMoves& m_moves;
    const std::int64_t m_id;
};

FolderMoves::FolderMoves(Database& database, MountedStore& store)
    : m_database(withTables(database))
    , m_store(store)
{
}

std::map<std::string, MountedStore::Copy> FolderMoves::move(
    const std::string& source, const std::string& target, std::size_t maxKeys)
{
    Move move{0, source, target, State::Copying, {}};
    for (const std::string& key : m_store.keysBelow(source, maxKeys + 1))
    {
        move.objects.push_back({key.substr(source.size()), std::nullopt});
    }
    if (move.objects.size() > maxKeys)
    {
        throw Failure(EXDEV, fmt::format("{} has more than {} files", clients::quoted(source), maxKeys));
    }
    record(move);
    const Active active(*this, move.id);
    const auto endLater = [&]
    {
        try
        {
            end(move);
        }
        catch (...)
        {
            warn(
                fmt::format("{} was {} {}, but deleting {} failed and will be tried again: {}", clients::quoted(source),
                    move.state == State::Undoing ? "not moved to" : "copied to", clients::quoted(target),
                    move.state == State::Undoing ? "the copies" : "it", Failure::current().what()));
        }
    };
    try
    {
        copyAll(move, false);
        setState(move, State::Deleting);
    }
    catch (...)
    {
        setState(move, State::Undoing);
        endLater();
        throw;
    }
    endLater();
    std::map<std::string, MountedStore::Copy> copies;
    for (const Object& object : move.objects)
    {
        copies.emplace(target + object.name, *object.copy);
    }
    return copies;
}

void FolderMoves::deleteLater(const std::string& source, const std::string& target, const MountedStore::Copy& copy)
{
    Move move{0, source, target, State::Deleting, {{"", copy}}};
    record(move);
    const Active recorded(*this, move.id);
}

void FolderMoves::resume()
{
    for (Move& move : recorded())
    {
        try
        {
            if (move.state == State::Copying)
            {
                copyAll(move, true);
                setState(move, State::Deleting);
            }
            end(move);
        }
        catch (...)
        {
            warn(fmt::format("an earlier move of {} to {} is not complete, and will be tried again: {}",
                clients::quoted(move.source), clients::quoted(move.target), Failure::current().what()));
        }
    }
}

void FolderMoves::record(Move& move)
{
    const auto lock = m_database.lock();
    m_database.atomically(
        [&]
        {
            Database::Statement add(
                m_database, "INSERT INTO folder_moves (source, target, state) VALUES (?1, ?2, ?3) RETURNING id");
            add.run([&] { move.id = add.number(0); }, move.source, move.target, std::int64_t(move.state));
            Database::Statement addObject(m_database, "INSERT INTO moved_objects (move, name) VALUES (?1, ?2)");
            for (const Object& object : move.objects)
            {
                addObject.run({}, move.id, object.name);
                object.copy ? setCopy(move, object) : void();
            }
        });
    m_active.insert(move.id);
}

/// Return the moves that are not in progress.
std::vector<FolderMoves::Move> FolderMoves::recorded()
{
    std::vector<Move> moves;
    const auto lock = m_database.lock();
    Database::Statement select(m_database, "SELECT id, source, target, state FROM folder_moves");
    select.run(
        [&]
        {
            m_active.contains(select.number(0)) ? void()
                                                : moves.push_back({select.number(0), select.text(1), select.text(2),
                                                      static_cast<State>(select.number(3)), {}});
        });
    Database::Statement objects(
        m_database, "SELECT name, source_tag, target_tag, target_size FROM moved_objects WHERE move = ?1");
    for (Move& move : moves)
    {
        objects.run(
            [&]
            {
                move.objects.push_back({objects.text(0), std::nullopt});
                if (!objects.isNull(1))
                {
                    const auto size = static_cast<std::uint64_t>(objects.number(3));
                    move.objects.back().copy = {objects.text(1), {objects.text(2), size}};
                }
            },
            move.id);
    }
    return moves;
}

/// @param isResumed  the copy may be there already, or something else
void FolderMoves::copy(const Move& move, Object& object, bool isResumed)
{
    const std::string source = move.source + object.name, target = move.target + object.name;
    if (isResumed && m_store.isThere(target))
    {
        object.copy = m_store.findCopy(source, target);
        object.copy ? void()
                    : warn(fmt::format("{} is not moved to {}, where another program has stored something",
                          clients::quoted(source), clients::quoted(target)));
    }
    else
    {
        const auto condition = isResumed ? m_store.require(target, std::nullopt) : nullptr;
        object.copy = m_store.copy(source, target);
    }
    if (object.copy)
    {
        const auto lock = m_database.lock();
        setCopy(move, object);
    }
}

/// Requires the lock of the database.
void FolderMoves::setCopy(const Move& move, const Object& object)
{
    Database::Statement(m_database,
        "UPDATE moved_objects SET source_tag = ?3, target_tag = ?4, target_size = ?5 WHERE move = ?1 AND name = ?2")
        .run({}, move.id, object.name, object.copy->sourceTag, object.copy->target.tag, object.copy->target.size);
}

void FolderMoves::copyAll(Move& move, bool isResumed)
{
    inParallel(move.objects.size(),
        [&](std::size_t index)
        {
            try
            {
                move.objects[index].copy ? void() : copy(move, move.objects[index], isResumed);
            }
            catch (const cloudprovider::ResourceNotFoundException&)
            {
                isResumed ? void() : throw; // removed since
            }
        });
}

/// Delete the old objects, or the copies, that are still the same.
void FolderMoves::end(const Move& move)
{
    const bool isUndoing = move.state == State::Undoing;
    const auto remove = [&](const Object& object)
    {
        if (object.copy) // otherwise it may be of another program
        {
            m_store.removeVersion((isUndoing ? move.target : move.source) + object.name,
                isUndoing ? object.copy->target.tag : object.copy->sourceTag);
        }
    };
    // The folder itself last: it exists as long as there is anything in it.
    inParallel(move.objects.size(),
        [&](std::size_t index) { move.objects[index].name.empty() ? void() : remove(move.objects[index]); });
    for (const Object& object : move.objects)
    {
        object.name.empty() ? remove(object) : void();
    }
    forget(move);
}

void FolderMoves::setState(Move& move, State state)
{
    const auto lock = m_database.lock();
    m_database.atomically(
        [&]
        {
            Database::Statement(m_database, "UPDATE folder_moves SET state = ?2 WHERE id = ?1")
                .run({}, move.id, std::int64_t(state));
            if (state == State::Deleting)
            {
                // See UnsentFiles. Files that another program has changed keep their version, so they are conflicts.
                Database::Statement(m_database,
                    "UPDATE files SET key = ?3 || substr(key, length(?2) + 1), tag = coalesce((SELECT target_tag FROM"
                    " moved_objects WHERE move = ?1 AND name = substr(key, length(?2) + 1) AND source_tag = files.tag),"
                    " tag) WHERE substr(key, 1, length(?2)) = ?2")
                    .run({}, move.id, move.source, move.target);
            }
        });
    move.state = state;
}

void FolderMoves::forget(const Move& move)
{
    const auto lock = m_database.lock();
    m_database.atomically(
        [&]
        {
            Database::Statement(m_database, "DELETE FROM folder_moves WHERE id = ?1").run({}, move.id);
            Database::Statement(m_database, "DELETE FROM moved_objects WHERE move = ?1").run({}, move.id);
        });
}

} // namespace storage::mount
