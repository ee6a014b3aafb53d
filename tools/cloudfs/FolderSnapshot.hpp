#pragma once

#include "StorePath.hpp"

#include <cstdint>
#include <map>
#include <string>

namespace cloudfs
{

class CommandContext;

/// What stands in one folder of the store, listed once for all files that are put into it.
///
/// A file that somebody else stores there later is not seen, and replaced by one of the same name. Only in front of a
/// large file, whose upload takes many requests, is one more spent on looking again.
/// Safe to read from any thread.
class FolderSnapshot
{
public:
    /// List the folder, unless it has so many entries that asking for single files is cheaper.
    FolderSnapshot(const CommandContext& context, const StorePath& folder);

    /// As CommandContext::requireCanStore(), for a file of this folder.
    ///
    /// @param size  bytes that it will have
    void requireCanStore(const StorePath& file, bool replace, std::uint64_t size) const;

private:
    const CommandContext& m_context;
    std::map<std::string, bool> m_isFolder; // by name
    bool m_isKnown = false;                 // m_isFolder is complete
};

} // namespace cloudfs
