#pragma once

#include "CommandContext.hpp"

#include <cstdint>
#include <map>
#include <string>

namespace cloudfs
{

/// The names in one folder of the store, listed once for all files that are uploaded into it.
///
/// A file that another program stores there later is not seen here, but makes the commit fail. So that this is known
/// before a long upload, the store is asked again for a file of more than 5 MiB.
///
/// Constant after construction; any thread may call requireCanStore().
class FolderSnapshot
{
public:
    /// List the folder; a missing folder counts as empty. After 10,000 entries the listing stops, and requireCanStore()
    /// asks the store for each file instead.
    ///
    /// @param context  must outlive the snapshot
    /// @throws CommandError; interrupt::Interrupted
    FolderSnapshot(const CommandContext& context, const StorePath& folder);

    /// Do what CommandContext::requireCanStore() does, for a file in this folder.
    ///
    /// @param size  the new file's size in bytes
    [[nodiscard]] CommandContext::Condition requireCanStore(
        const StorePath& file, bool replace, std::uint64_t size) const;

private:
    const CommandContext& m_context;
    std::map<std::string, bool> m_isFolder; // key: name
    bool m_isComplete = false;              // m_isFolder has all entries
};

} // namespace cloudfs
