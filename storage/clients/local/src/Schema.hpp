#pragma once

#include "Connection.hpp"
#include "Files.hpp"
#include "LockWait.hpp"

#include <filesystem>

namespace storage::clients::local
{

/// The path of the index of the store in this directory.
std::filesystem::path indexFile(const std::filesystem::path& directory);

/// Check that the directory holds an index that this program understands. If it is missing or empty, create both,
/// or throw StoreError of kind NotFound. Processes that create a store at the same time wait for each other.
///
/// @throws StoreError also when the directory has other content, or its index belongs to another program, is damaged,
/// or has
///         another version; the directory is left unchanged
void prepareIndex(const std::filesystem::path& directory, bool createMissing, const LockLimits& limits);

/// Lock the store's directory, against others that create, upgrade or repair an index.
void lockFolder(const FileHandle& folder, const std::filesystem::path& path, LockWait wait);

// To replace an index by a new one, without ever leaving a part of it:

/// Create an empty file for a new index beside the index.
///
/// @return its path
std::filesystem::path createNewIndex(const std::filesystem::path& directory);

/// Create the tables in the new index, and begin the transaction that fills them.
void beginNewIndex(Connection& index);

/// Replace the index by the new one, to which no connection is open.
void installNewIndex(const std::filesystem::path& directory, const FileHandle& folder);

} // namespace storage::clients::local
