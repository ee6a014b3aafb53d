#include "Commands.hpp"
#include "Failure.hpp"

#include <memory>
#include <string>

namespace cloudfs
{

namespace
{

void requireFolder(const Session& session, const StorePath& path)
{
    if (session.at(path, [&] { return session.provider().folderExists(path.iri()); }))
    {
        return;
    }
    const bool isFile = session.at(path, [&] { return session.provider().fileExists(path.iri()); });
    throw isFile ? Failure(path.text(), "is a file, not a folder", fsp::ErrorCode::InvalidLocation)
                 : Failure(path.text(), "no such folder", fsp::ErrorCode::NotFound);
}

void makeFolder(const Session& session, const std::string& argument, bool withParents)
{
    const StorePath path = StorePath::parse(argument);
    if (session.folderPolicy != storage::cloudprovider::FolderPolicy::MarkerObjects)
    {
        throw Failure(path.text(), "with --folders prefix a folder exists only while something is in it",
            fsp::ErrorCode::Unsupported);
    }
    session.requireNoFileAbove(path);
    if (withParents)
    {
        if (session.at(path, [&] { return session.provider().fileExists(path.iri()); }))
        {
            throw Failure(path.text(), "exists already as a file", fsp::ErrorCode::AlreadyExists);
        }
        session.at(path, [&] { session.provider().createFolderRecursive(path.iri()); });
        return;
    }
    if (path.isRoot() || session.at(path, [&] { return session.provider().folderExists(path.iri()); }))
    {
        throw Failure(path.text(), "exists already", fsp::ErrorCode::AlreadyExists);
    }
    const StorePath parent = path.parent();
    if (!session.at(parent, [&] { return session.provider().folderExists(parent.iri()); }))
    {
        throw Failure(parent.text(), "no such folder; -p creates it", fsp::ErrorCode::NotFound);
    }
    session.at(path, [&] { session.provider().createFolder(path.iri()); });
}

void removeFolder(const Session& session, const std::string& argument)
{
    const StorePath path = StorePath::parse(argument);
    if (path.isRoot())
    {
        throw Failure(path.text(), "the root cannot be removed", fsp::ErrorCode::InvalidLocation);
    }
    requireFolder(session, path);
    session.at(path, [&] { session.provider().removeFolder(path.iri()); });
}

void remove(const Session& session, const std::string& argument, bool recursive)
{
    const StorePath path = StorePath::parse(argument);
    if (path.isRoot())
    {
        throw Failure(path.text(), "the root cannot be removed", fsp::ErrorCode::InvalidLocation);
    }
    // The provider removes a missing file without a word; people want to hear of it.
    if (!path.namesFolder() && session.at(path, [&] { return session.provider().fileExists(path.iri()); }))
    {
        session.at(path, [&] { session.provider().removeFile(path.iri()); });
        return;
    }
    if (!session.at(path, [&] { return session.provider().folderExists(path.iri()); }))
    {
        throw Failure(path.text(), "no such file or folder", fsp::ErrorCode::NotFound);
    }
    if (!recursive)
    {
        throw Failure(
            path.text(), "is a folder; -r removes it with all that it holds", fsp::ErrorCode::InvalidLocation);
    }
    session.at(path, [&] { session.provider().removeFolderRecursively(path.iri()); });
}

struct Options
{
    std::string path;
    bool flag = false;
};

} // namespace

void addFolderCommands(CLI::App& app, Session& session)
{
    const auto make = std::make_shared<Options>();
    auto* mkdir = app.add_subcommand("mkdir", "Create a folder");
    mkdir->add_option("PATH", make->path, "The folder to create")->required();
    mkdir->add_flag("-p", make->flag, "Create missing folders above it too; an existing folder is no failure");
    mkdir->callback([&session, make] { makeFolder(session, make->path, make->flag); });

    const auto empty = std::make_shared<Options>();
    auto* rmdir = app.add_subcommand("rmdir", "Remove an empty folder");
    rmdir->add_option("PATH", empty->path, "The folder to remove")->required();
    rmdir->callback([&session, empty] { removeFolder(session, empty->path); });

    const auto any = std::make_shared<Options>();
    auto* rm = app.add_subcommand("rm", "Remove a file");
    rm->add_option("PATH", any->path, "What to remove")->required();
    rm->add_flag("-r", any->flag, "Remove a folder with all that it holds");
    rm->callback([&session, any] { remove(session, any->path, any->flag); });
}

} // namespace cloudfs
