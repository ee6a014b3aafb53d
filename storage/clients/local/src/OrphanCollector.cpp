#include "OrphanCollector.hpp"

#include "Objects.hpp"
#include "StoreError.hpp"
#include "StoreTransaction.hpp"
#include "Uploads.hpp"

#include <storage/cloudprovider/Logger.hpp>

#include <foundation/log/Severity.hpp>

#include <fmt/format.h>

#include <algorithm>

namespace storage::clients::local
{

namespace
{

void logLeft(std::uint32_t severity, const std::exception& error)
{
    cloudprovider::getLogger().write(
        severity, fmt::format("Leaving orphaned files in a local store: {}", error.what()));
}

bool isNamed(Connection& index, FileName name)
{
    return index
        .query("SELECT 1 FROM contents WHERE id = ? AND session = ?", name.content,
            static_cast<std::int64_t>(name.session))
        .next();
}

// A client that was killed during its commit may have left a whole transaction in SQLite's log that no other client
// sees. After a crash of all clients it would become visible. A loss of power could undo deferred transactions. Both
// would bring rows back that name orphans. Commit a change, which prevents that: it replaces the unseen transaction and
// syncs the others. It must be a real change, or SQLite writes nothing.
//
// @return false if the disk is full
bool commitBarrier(Database::WriteTransaction& index)
try
{
    index->run("UPDATE store SET next_id = next_id + 1");
    index.commit();
    return true;
}
catch (const StoreError& error)
{
    if (error.kind() != StoreError::Kind::NoSpace)
    {
        throw;
    }
    logLeft(foundation::log::severity::warning, error);
    return false;
}

// @return whether no orphan of a dead session is left
bool removeOrphans(Database& database, ContentFiles& files, const std::vector<SessionLock::Dead>& dead)
{
    std::vector<FileName> orphans = files.listCandidates(dead);
    {
        Database::ReadTransaction index(database);
        std::erase_if(orphans, [&](FileName name) { return isNamed(*index, name); });
    }
    SessionLock::Notes notes(files.session());
    files.prepareRemoval({}, notes); // if this client is killed, the notes of the dead sessions are still there
    bool complete = true;
    {
        // A client publishes a file inside the transaction that names it, and this transaction excludes all others.
        // Opening a store must not wait for a writer.
        Database::WriteTransaction index(database, Durability::Synced, LockWait(noWait));
        std::erase_if(orphans, [&](FileName name) { return isNamed(*index, name); });
        const std::int64_t nextId = readNextId(*index);
        // A lower id is neither assigned again nor in a commit that nobody sees. A file with another id may belong to
        // such a commit, or a living client may be about to use its name again.
        const auto mayBeNamed = [&](FileName name) { return name.content >= nextId; };
        const auto isOfDead = [&](FileName name)
        {
            return std::any_of(dead.begin(), dead.end(),
                [&](const SessionLock::Dead& session) { return session.number == name.session; });
        };
        complete = commitBarrier(index);
        std::erase_if(orphans, [&](FileName name) { return mayBeNamed(name) && !(complete && isOfDead(name)); });
    }
    for (const FileName name : orphans)
    {
        files.remove(name);
    }
    return complete;
}

} // namespace

void collectOrphans(Database& database, ContentFiles& files)
{
    try
    {
        endUploadsOfDeadClients(database, files);
        const std::vector<SessionLock::Dead> dead = files.findDeadSessions();
        if (dead.empty())
        {
            return;
        }
        files.removeIncoming(dead);
        if (removeOrphans(database, files, dead))
        {
            dropRemoved(database, files, LockWait(noWait));
            files.removeLocks(dead);
        }
    }
    catch (const StoreError& error)
    {
        using namespace foundation::log;
        logLeft(error.kind() == StoreError::Kind::Locked ? severity::progress : severity::warning, error);
    }
    catch (const std::filesystem::filesystem_error& error)
    {
        logLeft(foundation::log::severity::warning, error);
    }
}

} // namespace storage::clients::local
