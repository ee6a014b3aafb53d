#include "Batch.hpp"
#include "CommandError.hpp"
#include "Commands.hpp"
#include "Interrupt.hpp"
#include "LocalTarget.hpp"
#include "LocalTree.hpp"
#include "StandardOutput.hpp"
#include "Transfer.hpp"
#include "Validators.hpp"

#include <fl/i18n.hpp>

#include <cerrno>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <memory>
#include <set>
#include <string>
#include <string_view>
#include <sys/stat.h>

namespace cloudfs
{

namespace
{

struct Options
{
    std::string path;
    std::string local;
    bool recursive = false;
    bool force = false;
    unsigned jobs = 4;
};

constexpr auto notAFolder = "already exists and is not a folder";

void ignoreSize(std::uint64_t) {}

/// Fail for a path with a final "/".
void requireFileName(const CommandContext& context, const StorePath& path)
{
    path.namesFolder() ? context.requireFile(path) : void();
}

/// Read a file without looking it up first, which would take a round trip. If it is missing, say what is there instead.
///
/// @param read  throws CommandError; with NotFound if the file is missing
void readFile(const CommandContext& context, const StorePath& path, const std::function<void()>& read)
{
    try
    {
        read();
    }
    catch (const CommandError& failure)
    {
        failure.code() == fsp::ErrorCode::NotFound ? context.requireFile(path) : void();
        throw;
    }
}

void printFile(const CommandContext& context, const StorePath& path)
{
    StandardOutput output;
    Progress progress(context, false);
    const auto write = [&](const char* data, std::size_t size) { output.write(std::string_view(data, size)); };
    requireFileName(context, path);
    readFile(context, path, [&] { download(context, path, ignoreSize, write, progress); });
}

/// Downloads a folder of the store and its contents. The thread that lists creates each local folder before it queues
/// the files of that folder.
///
/// Nothing is written outside the target: names with empty, "." or ".." segments are refused, and an existing symbolic
/// link is not accepted as a folder.
class TreeDownload
{
public:
    TreeDownload(const CommandContext& context, const Options& options, const StorePath& source, std::string target,
        Progress& progress)
        : m_context(context)
        , m_options(options)
        , m_source(source)
        , m_target(std::move(target))
        , m_progress(progress)
        , m_batch(options.jobs, progress)
    {
    }

    bool run()
    {
        if (::mkdir(m_target.c_str(), 0777) != 0)
        {
            const int error = errno;
            if (!isLocalFolder(m_target))
            {
                throw error == EEXIST ? CommandError(m_target, notAFolder, fsp::ErrorCode::AlreadyExists)
                                      : CommandError::fromErrno(m_target, error);
            }
            LocalTarget::removeLeftovers(m_target);
        }
        m_folders.insert("");
        m_context.translateErrors(m_source,
            [&]
            {
                const auto entries = m_context.provider().listAllRecursive(m_source.iri());
                while (entries->hasNext())
                {
                    interrupt::throwIfPending();
                    entries->next();
                    const fsp::FolderEntry entry = entries->getCurrent();
                    const std::string name = fl::i18n::ustring_to_utf8(entry.name());
                    m_batch.runNow([&] { entry.isFolder() ? makeFolder(name) : submitFile(name, entry); });
                }
            });
        m_progress.markTotalFinal();
        return m_batch.finish();
    }

private:
    void makeFolder(const std::string& name)
    {
        requireFolderAbove(name);
        m_source.child(name); // throws for such names
        const std::string local = m_target + "/" + name;
        if (::mkdir(local.c_str(), 0777) != 0)
        {
            const int error = errno;
            struct stat status = {};
            if (error != EEXIST || ::lstat(local.c_str(), &status) != 0)
            {
                throw CommandError::fromErrno(local, error);
            }
            if (!S_ISDIR(status.st_mode))
            {
                throw CommandError(local, notAFolder, fsp::ErrorCode::AlreadyExists);
            }
            LocalTarget::removeLeftovers(local);
        }
        m_folders.insert(name);
    }

    void submitFile(const std::string& name, const fsp::FolderEntry& entry)
    {
        requireFolderAbove(name);
        const StorePath path = m_source.child(name);
        m_progress.addToTotal(entry.fileAttributes().size().value_or(0));
        m_batch.submit(
            [this, path, local = m_target + "/" + name]
            {
                LocalTarget target(local, m_options.force, LocalTarget::Destination::InsideTree);
                download(m_context, path, ignoreSize, target, m_progress);
            });
    }

    void requireFolderAbove(const std::string& name) const
    {
        const std::size_t end = name.rfind('/');
        if (m_folders.count(end == std::string::npos ? "" : name.substr(0, end)) == 0)
        {
            throw CommandError(
                m_source.text() + "/" + name, "skipped: its folder was not created", fsp::ErrorCode::InvalidLocation);
        }
    }

    const CommandContext& m_context;
    const Options& m_options;
    const StorePath m_source;
    const std::string m_target;
    std::set<std::string> m_folders; // names of real folders in the target; "" is the target itself
    Progress& m_progress;
    Batch m_batch; // last: its threads use the members above
};

std::string localDestination(const Options& options, const StorePath& source)
{
    const bool insideFolder = !source.isRoot() && isLocalFolder(options.local);
    return insideFolder ? options.local + (options.local.ends_with('/') ? "" : "/") + source.name() : options.local;
}

void get(CommandContext& context, const Options& options)
{
    const StorePath path = StorePath::parse(options.path);
    if (options.local == "-")
    {
        printFile(context, path);
        return;
    }
    const std::string local = localDestination(options, path);
    Progress progress(context);
    if (!options.recursive || (!path.namesFolder() && context.fileExists(path)))
    {
        const auto begin = [&](std::uint64_t size)
        {
            progress.addToTotal(size);
            progress.markTotalFinal();
        };
        requireFileName(context, path);
        LocalTarget target(local, options.force, LocalTarget::Destination::NamedByUser);
        readFile(context, path, [&] { download(context, path, begin, target, progress); });
        return;
    }
    if (!context.folderExists(path))
    {
        throw CommandError(path.text(), "no such file or folder", fsp::ErrorCode::NotFound);
    }
    if (!TreeDownload(context, options, path, local, progress).run())
    {
        context.markFailed();
    }
}

} // namespace

void addGetCommands(CLI::App& app, CommandContext& context)
{
    const auto options = std::make_shared<Options>();
    auto* command = app.add_subcommand("get", "Download a file or a folder");
    command->footer(
        "If LOCAL is an existing folder, the download is put into it under its own name; otherwise LOCAL is\n"
        "the new name. Only complete files become visible.");
    command->add_option("PATH", options->path, "A file, or a folder with -r")->required();
    command->add_option("LOCAL", options->local, "The local destination, or - for standard output")->required();
    auto* recursive = command->add_flag("-r", options->recursive, "Download a folder and its contents");
    command->add_option("-j", options->jobs, "Files to transfer at the same time with -r, 1 to 64")
        ->check(numberBetween(1, 64))
        ->type_name("N")
        ->capture_default_str();
    command->add_flag("-f", options->force, "Replace existing files");
    command->parse_complete_callback( // runs before the store is opened, which may fail
        [options, recursive]
        {
            if (options->local == "-" && options->recursive)
            {
                throw CLI::ValidationError(recursive->get_name(), "cannot write a folder to standard output");
            }
        });
    command->callback([&context, options] { get(context, *options); });

    const auto path = std::make_shared<std::string>();
    auto* cat = app.add_subcommand("cat", "Write a file to standard output");
    cat->add_option("PATH", *path, "An existing file")->required();
    cat->callback([&context, path] { printFile(context, StorePath::parse(*path)); });
}

} // namespace cloudfs
