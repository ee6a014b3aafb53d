#include "CommandError.hpp"
#include "Commands.hpp"
#include "Interrupt.hpp"
#include "StandardOutput.hpp"
#include "Text.hpp"

#include <storage/clients/common/StoreCounters.hpp>

#include <fl/i18n.hpp>

#include <fmt/format.h>

#include <memory>
#include <string>

namespace cloudfs
{

namespace
{

struct ListOptions
{
    std::string path = "/";
    bool details = false;
    bool recursive = false;
    bool filesOnly = false;
    bool foldersOnly = false;
};

std::string entryLine(const std::string& name, const fsp::FolderEntry& entry, bool details)
{
    std::string shown = (StandardOutput::isTerminal() ? text::printable(name) : name) + (entry.isFolder() ? "/" : "");
    if (!details)
    {
        return shown;
    }
    const auto size = entry.isFolder() ? std::nullopt : entry.fileAttributes().size();
    const auto& time =
        entry.isFolder() ? entry.folderAttributes().lastModified() : entry.fileAttributes().lastModified();
    return fmt::format(
        "{:>10}  {}  {}", size ? storage::clients::formatBytes(*size) : "-", text::shortTime(time), shown);
}

fsp::FolderEntryIteratorPtr openListing(
    const CommandContext& context, const StorePath& path, const ListOptions& options)
{
    const fsp::IProvider& provider = context.provider();
    if (options.recursive)
    {
        return provider.listAllRecursive(path.iri());
    }
    if (options.filesOnly)
    {
        return provider.listFiles(path.iri());
    }
    return options.foldersOnly ? provider.listFolders(path.iri()) : provider.listAll(path.iri());
}

void list(const CommandContext& context, const ListOptions& options)
{
    const StorePath path = StorePath::parse(options.path);
    StandardOutput output;
    if (!path.namesFolder() && context.fileExists(path))
    {
        const auto attributes = context.fileAttributes(path);
        if (!options.foldersOnly)
        {
            output.line(entryLine(path.name(), fsp::FolderEntry(u"", attributes), options.details));
        }
        output.flush();
        return;
    }
    context.translateErrors(path,
        [&]
        {
            const auto entries = openListing(context, path, options);
            while (entries->hasNext())
            {
                interrupt::throwIfPending();
                entries->next();
                const fsp::FolderEntry entry = entries->getCurrent();
                if (entry.isFolder() ? !options.filesOnly : !options.foldersOnly)
                {
                    output.line(entryLine(fl::i18n::ustring_to_utf8(entry.name()), entry, options.details));
                }
            }
        });
    output.flush();
}

void showAttributes(const CommandContext& context, const std::string& argument)
{
    const StorePath path = StorePath::parse(argument);
    StandardOutput output;
    output.line("Path:     " + (StandardOutput::isTerminal() ? text::printable(path.text()) : path.text()));
    if (!path.namesFolder() && context.fileExists(path))
    {
        const auto file = context.fileAttributes(path);
        const auto size = file.size().value_or(0);
        output.line("Kind:     file");
        output.line(fmt::format(
            "Size:     {} bytes{}", size, size < 1024 ? "" : " (" + storage::clients::formatBytes(size) + ")"));
        output.line("Modified: " + text::fullTime(file.lastModified()));
    }
    else
    {
        const auto folder =
            context.translateErrors(path, [&] { return context.provider().getFolderAttributes(path.iri()); });
        output.line("Kind:     folder");
        output.line("Modified: " + text::fullTime(folder.lastModified()));
    }
    output.flush();
}

} // namespace

void addListCommands(CLI::App& app, CommandContext& context)
{
    const auto options = std::make_shared<ListOptions>();
    auto* ls = app.add_subcommand("ls", "List a folder; names of folders end in \"/\"");
    ls->add_option("PATH", options->path, "A folder or a file")->capture_default_str();
    ls->add_flag("-l", options->details, "Show size and time of last change");
    ls->add_flag("-R", options->recursive, "List subfolders too");
    auto* files = ls->add_flag("--files", options->filesOnly, "List only files");
    ls->add_flag("--folders", options->foldersOnly, "List only folders")->excludes(files);
    ls->callback([&context, options] { list(context, *options); });

    const auto statPath = std::make_shared<std::string>();
    auto* stat = app.add_subcommand("stat", "Show the attributes of a file or a folder");
    stat->add_option("PATH", *statPath, "A file or a folder")->required();
    stat->callback([&context, statPath] { showAttributes(context, *statPath); });
}

} // namespace cloudfs
