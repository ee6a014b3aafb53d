#pragma once

#include "Files.hpp"
#include "LockWait.hpp"

#include <storage/clients/local/CheckLocalStore.hpp>

#include <filesystem>
#include <functional>

namespace storage::clients::local
{

/// Replace a damaged index by one with all objects that can still be read from it, and move the old one into a folder
/// in `damaged`. Does nothing if another process has repaired the index meanwhile. A kill leaves the old index, or a
/// new one that finishRepair() installs. Others are kept from the index meanwhile; one that was waiting for it fails.
///
/// @param reason  why the index counts as damaged
/// @param report  called for each object that is lost, and for the index
/// @throws StoreError when the store is in use, or nothing can be read from the index
void repairIndex(const std::filesystem::path& directory, const LockLimits& limits, const std::string& reason,
    const std::function<void(const Damage&)>& report);

/// Install the new index if a repair was killed after it began to move the old one aside. The folder must be locked.
///
/// @throws StoreError
void finishRepair(const std::filesystem::path& directory, const FileHandle& folder);

} // namespace storage::clients::local
