#pragma once

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

} // namespace storage::clients::local
