#pragma once

#include <filesystem>

namespace storage::clients::local
{

/// The path of the index of the store in this directory.
std::filesystem::path indexFile(const std::filesystem::path& directory);

/// Check that the directory holds an index that this program understands. Create one if the directory is empty.
/// Processes that call this at the same time wait for each other.
///
/// @throws StoreError when the directory has other content, or its index belongs to another program, is damaged, or has
///         another version; the directory is left unchanged
void prepareIndex(const std::filesystem::path& directory);

} // namespace storage::clients::local
