#pragma once

#include "Database.hpp"
#include "MountedStore.hpp"

#include <cstddef>
#include <cstdint>
#include <map>
#include <optional>
#include <set>
#include <string>
#include <vector>

namespace storage::mount
{

/// Moves folders of the store: copies every object inside the store, and then deletes the old ones.
///
/// Each move is recorded, so that resume() can complete it after a crash, or undo it after a failure. Objects that
/// another program has stored meanwhile are neither replaced nor deleted. Any thread may call any operation, for
/// folders that do not overlap.
class FolderMoves
{
public:
    FolderMoves(Database& database, MountedStore& store);

    /// Move a folder, and record the new keys of unsent files in it.
    ///
    /// After a failure, the target has none of the objects, unless the store could not be reached; then resume()
    /// deletes them, but not a copy that was made without telling it. If all is copied, but not all old objects could
    /// be deleted, the folder counts as moved; likewise.
    /// @param source, target  keys of folders
    /// @param maxKeys         of objects that are moved
    /// @return the objects of the target, by key
    /// @throws Failure  EXDEV if there are more keys
    std::map<std::string, MountedStore::Copy> move(
        const std::string& source, const std::string& target, std::size_t maxKeys);

    /// Let resume() delete the old object of a file that was copied.
    void deleteLater(const std::string& source, const std::string& target, const MountedStore::Copy& copy);

    /// Try to end the moves that are recorded and not in progress. Logs failures, after which it can be called again.
    void resume();

private:
    enum class State
    {
        Copying,
        Deleting, ///< the old objects
        Undoing   ///< deleting the copies
    };

    struct Object
    {
        std::string name;                       ///< its key without that of the folder
        std::optional<MountedStore::Copy> copy; ///< nullopt: not copied yet, or that is not known
    };

    struct Move
    {
        std::int64_t id = 0;
        std::string source, target;
        State state = State::Copying;
        std::vector<Object> objects;
    };

    class Active;

    void record(Move& move);
    std::vector<Move> recorded();
    void copy(const Move& move, Object& object, bool isResumed);
    void setCopy(const Move& move, const Object& object);
    void copyAll(Move& move, bool isResumed);
    void end(const Move& move);
    void setState(Move& move, State state);
    void forget(const Move& move);

    Database& m_database;
    MountedStore& m_store;
    std::set<std::int64_t> m_active; // moves that are in progress; guarded by the lock of m_database
};

} // namespace storage::mount
