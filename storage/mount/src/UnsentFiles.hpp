#pragma once

#include "Database.hpp"
#include "Extents.hpp"
#include "MountedStore.hpp"

#include <cstdint>
#include <filesystem>
#include <optional>
#include <string>
#include <vector>

namespace storage::mount
{

/// A file whose contents are not stored yet, as recorded in a folder of this machine.
struct UnsentFile
{
    std::int64_t id = 0;
    std::string key;
    std::optional<ObjectVersion> before; ///< that it is to replace; nullopt: there was no object
    std::uint64_t kept = 0;              ///< bytes of `before` that count where nothing was written
    Extents written;                     ///< below `kept`; all bytes from there on are in the local file
    bool isOfThisBoot = true;            ///< false: the machine has stopped since, so the local file may be incomplete
};

/// Records which files are not stored yet, so that the next mount finds them if this process is killed.
///
/// Their bytes are in one sparse file each, whose size is that of the file. Both survive the process, but not a loss of
/// power: nothing is synced, because what a program wants to be safe it sends to the store by fsync or close.
///
/// Any thread may call any operation at any time.
/// @throws Failure for every failure, such as ENOSPC
class UnsentFiles
{
public:
    /// @param folder  for the local files; exists, and nobody else uses it
    UnsentFiles(Database& database, const std::filesystem::path& folder);

    /// Return what earlier processes have left, and remove local files that are not recorded. Call this before all
    /// others.
    std::vector<UnsentFile> recover();

    /// Make a number for a local file.
    std::int64_t nextId();

    std::filesystem::path pathOf(std::int64_t id) const;

    /// Record a file, or that its key, version or `kept` has changed. Does not change what was recorded as written.
    void put(const UnsentFile& file);

    /// Record that bytes below UnsentFile::kept are in the local file now. @param bytes  with all that they touch
    void wrote(std::int64_t id, const Extent& bytes);

    /// Forget a file, because it is stored or removed. Its local file stays.
    void forget(std::int64_t id);

private:
    Database& m_database; // its lock is held while the next ones are used
    const std::filesystem::path m_folder;
    Database::Statement m_put, m_wrote, m_swallow, m_forget, m_forgetExtents;
    std::int64_t m_lastId = 0;
};

} // namespace storage::mount
