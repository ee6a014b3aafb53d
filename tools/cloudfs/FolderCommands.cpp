#include "CommandError.hpp"
#include "Commands.hpp"

#include <memory>
#include <string>

namespace cloudfs
{

namespace
{

void requireFolder(const CommandContext& context, const StorePath& path)
{
    if (context.folderExists(path))
    {
        return;
    }
    const bool isFile = context.fileExists(path);
    throw isFile ? CommandError(path.text(), "is a file, not a folder", fsp::ErrorCode::InvalidLocation)
                 : CommandError(path.text(), "no such folder", fsp::ErrorCode::NotFound);
}

void makeFolder(const CommandContext& context, const std::string& argument, bool withParents)
{
    const StorePath path = StorePath::parse(argument);
    if (context.folderPolicy != storage::cloudprovider::FolderPolicy::MarkerObjects)
    {
        throw CommandError(path.text(), "with --folders prefix a folder exists only while something is in it",
            fsp::ErrorCode::Unsupported);
    }
    context.requireNoParentIsFile(path);
    if (withParents)
    {
        if (context.fileExists(path))
        {
            throw CommandError(path.text(), "exists already as a file", fsp::ErrorCode::AlreadyExists);
        }
        context.translateErrors(path, [&] { context.provider().createFolderRecursive(path.iri()); });
        return;
    }
    if (path.isRoot() || context.folderExists(path))
    {
        throw CommandError(path.text(), "exists already", fsp::ErrorCode::AlreadyExists);
    }
    const StorePath parent = path.parent();
    if (!context.folderExists(parent))
    {
        throw CommandError(parent.text(), "no such folder; -p creates it", fsp::ErrorCode::NotFound);
    }
    context.translateErrors(path, [&] { context.provider().createFolder(path.iri()); });
}

void removeFolder(const CommandContext& context, const std::string& argument)
{
    const StorePath path = StorePath::parse(argument);
    if (path.isRoot())
    {
        throw CommandError(path.text(), "the root cannot be removed", fsp::ErrorCode::InvalidLocation);
    }
    requireFolder(context, path);
    context.translateErrors(path, [&] { context.provider().removeFolder(path.iri()); });
}

void remove(const CommandContext& context, const std::string& argument, bool recursive)
{
    const StorePath path = StorePath::parse(argument);
    if (path.isRoot())
    {
        throw CommandError(path.text(), "the root cannot be removed", fsp::ErrorCode::InvalidLocation);
    }
    // The provider removes a missing file without a word; people want to hear of it.
    if (!path.namesFolder() && context.fileExists(path))
    {
        context.translateErrors(path, [&] { context.provider().removeFile(path.iri()); });
        return;
    }
    if (!context.folderExists(path))
    {
        throw CommandError(path.text(), "no such file or folder", fsp::ErrorCode::NotFound);
    }
    if (!recursive)
    {
        throw CommandError(
            path.text(), "is a folder; -r removes it with all that it holds", fsp::ErrorCode::InvalidLocation);
    }
    context.translateErrors(path, [&] { context.provider().removeFolderRecursively(path.iri()); });
}

struct Options
{
    std::string path;
    bool flag = false;
};

} // namespace

void addFolderCommands(CLI::App& app, CommandContext& context)
{
    const auto make = std::make_shared<Options>();
    auto* mkdir = app.add_subcommand("mkdir", "Create a folder");
    mkdir->add_option("PATH", make->path, "The folder to create")->required();
    mkdir->add_flag("-p", make->flag, "Create missing folders above it too; an existing folder is no failure");
    mkdir->callback([&context, make] { makeFolder(context, make->path, make->flag); });

    const auto empty = std::make_shared<Options>();
    auto* rmdir = app.add_subcommand("rmdir", "Remove an empty folder");
    rmdir->add_option("PATH", empty->path, "The folder to remove")->required();
    rmdir->callback([&context, empty] { removeFolder(context, empty->path); });

    const auto any = std::make_shared<Options>();
    auto* rm = app.add_subcommand("rm", "Remove a file");
    rm->add_option("PATH", any->path, "What to remove")->required();
    rm->add_flag("-r", any->flag, "Remove a folder with all that it holds");
    rm->callback([&context, any] { remove(context, any->path, any->flag); });
}

} // namespace cloudfs
