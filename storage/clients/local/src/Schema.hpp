#pragma once

#include "Connection.hpp"
#include "Files.hpp"
#include "LockWait.hpp"

#include <filesystem>

namespace storage::clients::local
{

/// The path of the index of the store in this directory.
std::filesystem::path indexFile(const std::filesystem::path& directory);

/// The path of a new index that is to replace it.
std::filesystem::path newIndexFile(const std::filesystem::path& directory);

/// Check that the directory holds an index that this program understands. If it is missing or empty, create both,
/// or throw StoreError of kind NotFound. Processes that create a store at the same time wait for each other.
///
/// @throws StoreError also when the directory has other content, or its index belongs to another program, is damaged,
/// or has
///         another version; the directory is left unchanged
void prepareIndex(const std::filesystem::path& directory, bool createMissing, const LockLimits& limits);

/// Lock the store's directory, against others that create, upgrade or repair an index.
void lockFolder(const FileHandle& folder, const std::filesystem::path& path, LockWait wait);

/// A new index that is to replace the one of a store, never by a part of it. The destructor removes it unless it was
/// installed.
class NewIndex
{
public:
    /// Create an empty file beside the index.
    explicit NewIndex(const std::filesystem::path& directory);
    NewIndex(const NewIndex&) = delete;
    NewIndex& operator=(const NewIndex&) = delete;
    ~NewIndex();

    const std::filesystem::path& file() const noexcept { return m_file; }

    /// Create the tables in the new index, and begin the transaction that fills them.
    static void begin(Connection& index);

    /// Replace the index of a directory by the new one, to which no connection is open.
    static void install(const std::filesystem::path& directory, const FileHandle& folder);

private:
    void remove() const;

    const std::filesystem::path m_file;
};

} // namespace storage::clients::local
