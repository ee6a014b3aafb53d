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
    const std::vector<SessionLock::Dead> ended = files.findDeadSessions();
    if (ended.empty())
    {
        return;
    }
    std::vector<FileName> suspects = files.list();
    {
        Database::ReadTransaction index(database);
        std::erase_if(suspects, [&](FileName name) { return isNamed(*index, name); });
    }
    if (!suspects.empty())
    {
        // Whoever is just putting a file in its place does so inside a change. While this one waits nobody does, and
        // what is not named now never will be.
        Database::WriteTransaction index(database, Durability::Synced);
        std::erase_if(suspects, [&](FileName name) { return isNamed(*index, name); });
        files.prepareRemoval();
        for (const FileName name : suspects)
        {
            files.remove(name);
        }
    }
    files.removeSessions(ended);
}

} // namespace storage::clients::local
