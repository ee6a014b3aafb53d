#pragma once

#include "Database.hpp"
#include "MountedStore.hpp"

#include <cstddef>
#include <cstdint>
#include <map>
#include <string>
#include <vector>

namespace storage::mount
{

/// Moves folders of the store: copies every object inside the store, and then deletes the old ones.
///
/// Each move is recorded, so that resume() can complete it after a crash. Any thread may call any operation, for
/// folders that do not overlap.
class FolderMoves
{
public:
    FolderMoves(Database& database, MountedStore& store);

    /// Move a folder. After a failure, the target has none of the objects, unless that could not be reached.
    ///
    /// If all is copied, but not all old objects could be deleted, the folder counts as moved; resume() deletes them.
    /// @param source, target  keys of folders
    /// @param maxKeys         of objects that are moved
    /// @return the objects of the target, by key
    /// @throws Failure  EXDEV if there are more keys
    std::map<std::string, ObjectVersion> move(
        const std::string& source, const std::string& target, std::size_t maxKeys);

    /// Complete the moves of earlier processes, and those that lack deletions.
    void resume();

private:
    struct Move
    {
        std::int64_t id = 0;
        std::string source, target;
        std::vector<std::string> names; ///< keys without the folder's key
    };

    std::map<std::string, ObjectVersion> copyAll(const Move& move);
    void removeAll(const Move& move, const std::string& folder);
    void setCopied(const Move& move);
    void forget(const Move& move);

    Database& m_database;
    MountedStore& m_store;
};

} // namespace storage::mount
