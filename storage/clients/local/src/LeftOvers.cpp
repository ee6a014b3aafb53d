#include "LeftOvers.hpp"

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

void collectLeftOvers(Database& database, ContentFiles& files)
{
    const std::vector<Session::Ended> ended = files.findEnded();
    if (ended.empty())
    {
        return;
    }
    std::vector<FileName> suspects = files.list();
    {
        Database::Reading index(database);
        std::erase_if(suspects, [&](FileName name) { return isNamed(*index, name); });
    }
    if (!suspects.empty())
    {
        // Whoever is just putting a file in its place does so inside a change. While this one waits nobody does, and
        // what is not named now never will be.
        Database::Writing index(database, Durability::Lasting);
        std::erase_if(suspects, [&](FileName name) { return isNamed(*index, name); });
        files.expectRemoval();
        for (const FileName name : suspects)
        {
            files.remove(name);
        }
    }
    files.forget(ended);
}

} // namespace storage::clients::local
