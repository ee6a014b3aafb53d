#pragma once

#include <filesystem>

namespace storage::clients::local
{

/// The index of the store in this directory.
std::filesystem::path indexFile(const std::filesystem::path& directory);

/// See that the directory holds an index that this program understands, and make one if the directory is empty.
/// Processes that do so at the same time wait for each other.
///
/// @throws StoreError, and leaves the directory as it is: it has other content, another program's or a damaged index,
/// or
///         one of a later version
void prepareIndex(const std::filesystem::path& directory);

} // namespace storage::clients::local
