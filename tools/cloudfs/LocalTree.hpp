#pragma once

#include <cstdint>
#include <string>

namespace cloudfs
{

class CommandError;

/// What a walk through a local tree finds. Names are relative to the tree, with "/" between them.
class LocalTreeVisitor
{
public:
    virtual ~LocalTreeVisitor() = default;

    /// A folder, before anything in it.
    ///
    /// @return whether to look into it
    virtual bool enterFolder(const std::string& local, const std::string& name) = 0;

    /// A regular file, or a symbolic link to one.
    virtual void visitFile(const std::string& local, const std::string& name, std::uint64_t size) = 0;

    /// Something that is neither, or that cannot be looked at.
    virtual void reportSkipped(const CommandError& reason) = 0;
};

/// Visit everything below a folder, the entries of each folder in the order of their bytes.
///
/// Symbolic links to folders are left out, so the walk ends whatever they lead to.
/// @throws what the visitor throws; interrupt::Interrupted
void walkLocalTree(const std::string& folder, LocalTreeVisitor& visitor);

/// Whether the path is a folder, or a symbolic link to one.
bool isLocalFolder(const std::string& path);

/// The name that a file or folder has: its last segment, or nothing for "/", "." and "..".
std::string baseName(std::string path);

} // namespace cloudfs
