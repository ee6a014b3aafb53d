#include "OrphanCollector.hpp"

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
        files.prepareRemoval();
        for (const FileName name : candidates)
        {
            files.remove(name);
        }
    }
    files.removeSessions(dead);
}

} // namespace storage::clients::local
