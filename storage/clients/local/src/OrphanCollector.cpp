#include "OrphanCollector.hpp"

#include "StoreError.hpp"

#include <algorithm>

namespace storage::clients::local
{

namespace
{

bool isNamed(Connection& index, FileName name)
{
    return index
        .query("SELECT 1 FROM contents WHERE id = ? AND session = ?", name.content,
            static_cast<std::int64_t>(name.session))
        .next();
}

// A client that was killed during its commit may have left a whole transaction in SQLite's log that no other client
// sees. After a crash of all clients it would become visible, and its rows would name files that are about to be
// removed. Commit a change, which replaces it in the log. The change must be real, or SQLite writes nothing.
//
// @return false if the disk is full
bool replaceUnseenCommit(Database::WriteTransaction& index)
try
{
    index->run("UPDATE store SET next_id = next_id + 1");
    index.commit();
    return true;
}
catch (const StoreError& error)
{
    if (error.kind() == StoreError::Kind::NoSpace)
    {
        return false;
    }
    throw;
}

} // namespace

void collectOrphans(Database& database, ContentFiles& files)
{
    const std::vector<SessionLock::Dead> dead = files.findDeadSessions();
    if (dead.empty())
    {
        return;
    }
    std::vector<FileName> candidates = files.list();
    {
        Database::ReadTransaction index(database);
        std::erase_if(candidates, [&](FileName name) { return isNamed(*index, name); });
    }
    if (!candidates.empty())
    {
        // A client publishes a file inside the transaction that names it. This transaction excludes all others, so a
        // file that has no name in the index now will never get one.
        Database::WriteTransaction index(database, Durability::Synced);
        std::erase_if(candidates, [&](FileName name) { return isNamed(*index, name); });
        if (!candidates.empty())
        {
            files.prepareRemoval();
            if (!replaceUnseenCommit(index))
            {
                return; // the orphans stay until there is disk space
            }
        }
        for (const FileName name : candidates)
        {
            files.remove(name);
        }
    }
    files.removeSessions(dead);
}

} // namespace storage::clients::local
