#include "CommandError.hpp"
#include "Commands.hpp"
#include "Interrupt.hpp"
#include "Progress.hpp"

#include <storage/clients/common/ObjectRemover.hpp>
#include <storage/clients/decorators/FindInterface.hpp>
#include <storage/cloudprovider/CloudExceptions.hpp>

#include <exception>
#include <memory>
#include <string>
#include <utility>
#include <vector>

namespace cloudfs
{

using storage::cloudprovider::CloudException;

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
        throw CommandError(path.text(), "with --folders prefix, a folder exists only while it contains files",
            fsp::ErrorCode::Unsupported);
    }
    context.requireNoParentIsFile(path);
    if (withParents)
    {
        if (context.fileExists(path))
        {
            throw CommandError(path.text(), "already exists and is a file", fsp::ErrorCode::AlreadyExists);
        }
        context.translateErrors(path, [&] { context.provider().createFolderRecursive(path.iri()); });
        return;
    }
    if (path.isRoot() || context.folderExists(path))
    {
        throw CommandError(path.text(), "already exists", fsp::ErrorCode::AlreadyExists);
    }
    const StorePath parent = path.parent();
    if (!context.folderExists(parent))
    {
        throw CommandError(parent.text(), "no such folder; use -p to create it", fsp::ErrorCode::NotFound);
    }
    context.translateErrors(path, [&] { context.provider().createFolder(path.iri()); });
}

void removeFolder(const CommandContext& context, const std::string& argument)
{
    const StorePath path = StorePath::parse(argument);
    if (path.isRoot())
    {
        throw CommandError(path.text(), "cannot remove the root folder", fsp::ErrorCode::InvalidLocation);
    }
    requireFolder(context, path);
    context.translateErrors(path, [&] { context.provider().removeFolder(path.iri()); });
}

/// Remove a folder and its contents, page by page if the store removes many objects at once. A file that the store
/// refuses to remove is reported, and the others are removed.
void removeTree(CommandContext& context, const StorePath& path, Progress& progress)
{
    auto* const remover = storage::clients::findInterface<storage::clients::ObjectRemover>(context.store());
    if (remover == nullptr)
    {
        context.translateErrors(path, [&] { context.provider().removeFolderRecursively(path.iri()); });
        return;
    }
    context.translateErrors(path,
        [&]
        {
            std::string token;
            do
            {
                std::vector<std::string> keys;
                for (auto& entry : context.client().listObjects(path.key() + '/', token, {"", -1}))
                {
                    keys.push_back(std::move(entry.key));
                }
                for (const auto& [key, failure] : remover->deleteObjects(keys))
                {
                    try
                    {
                        std::rethrow_exception(failure);
                    }
                    catch (const CloudException& exception)
                    {
                        progress.report(CommandError::fromStore('/' + key, exception).what());
                        context.markFailed();
                    }
                }
                interrupt::throwIfPending();
            } while (!token.empty());
        });
}

void remove(CommandContext& context, const std::string& argument, bool recursive)
{
    Progress progress(context);
    const StorePath path = StorePath::parse(argument);
    if (path.isRoot())
    {
        throw CommandError(path.text(), "cannot remove the root folder", fsp::ErrorCode::InvalidLocation);
    }
    // The provider does not report a missing file; the user should know.
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
            path.text(), "is a folder; use -r to remove it and its contents", fsp::ErrorCode::InvalidLocation);
    }
    removeTree(context, path, progress);
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
    mkdir->add_flag("-p", make->flag, "Create missing parents too; accept an existing folder");
    mkdir->callback([&context, make] { makeFolder(context, make->path, make->flag); });

    const auto empty = std::make_shared<Options>();
    auto* rmdir = app.add_subcommand("rmdir", "Remove an empty folder");
    rmdir->add_option("PATH", empty->path, "The folder to remove")->required();
    rmdir->callback([&context, empty] { removeFolder(context, empty->path); });

    const auto any = std::make_shared<Options>();
    auto* rm = app.add_subcommand("rm", "Remove a file, or a folder with -r");
    rm->add_option("PATH", any->path, "What to remove")->required();
    rm->add_flag("-r", any->flag, "Remove a folder and its contents");
    rm->callback([&context, any] { remove(context, any->path, any->flag); });
}

} // namespace cloudfs
