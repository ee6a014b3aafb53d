#pragma once

#include <cstdint>
#include <string>

namespace cloudfs
{

class CommandError;

/// Receives the entries of a local tree. `local` is a path on this machine, `name` is relative to the tree's root.
class LocalTreeVisitor
{
public:
    virtual ~LocalTreeVisitor() = default;

    /// Called for a folder, before its entries.
    ///
    /// @return whether to visit its entries
    virtual bool enterFolder(const std::string& local, const std::string& name) = 0;

    /// Called for a regular file, or a symbolic link to one.
    ///
    /// @param size  in bytes
    virtual void visitFile(const std::string& local, const std::string& name, std::uint64_t size) = 0;

    /// Called for an entry that is neither, and for one that cannot be read.
    virtual void reportSkipped(const CommandError& reason) = 0;
};

/// Visit everything below a folder, the entries of each folder in byte order of their names.
///
/// Symbolic links to folders are skipped, so a cycle of links does not matter.
/// @throws what the visitor throws; interrupt::Interrupted
void walkLocalTree(const std::string& folder, LocalTreeVisitor& visitor);

/// Return whether the path is a folder, or a symbolic link to one.
bool isLocalFolder(const std::string& path);

/// Return the last segment of a path, or nothing for "/", "." and "..".
std::string baseName(std::string path);

} // namespace cloudfs
