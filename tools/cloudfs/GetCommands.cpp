#include "Batch.hpp"
#include "CommandError.hpp"
#include "Commands.hpp"
#include "Interrupt.hpp"
#include "LocalTarget.hpp"
#include "LocalTree.hpp"
#include "StandardOutput.hpp"
#include "Transfer.hpp"

#include <fl/i18n.hpp>

#include <cerrno>
#include <memory>
#include <set>
#include <string>
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

void getFile(const CommandContext& context, const StorePath& path, LocalTarget& target, Progress& progress)
{
    download(
        context, path, [&](const char* data, std::size_t size) { target.write(data, size); }, progress);
    target.commit();
}

void printFile(const CommandContext& context, const StorePath& path)
{
    context.requireFile(path);
    StandardOutput output;
    Progress progress(false);
    download(
        context, path, [&](const char* data, std::size_t size) { output.write(data, size); }, progress);
}

/// Gets a folder of the store with everything in it. Local folders are created by the listing thread, in front of the
/// files in them, which go to the batch.
///
/// Nothing is written outside of the target: each name must be a plain one, and each folder a real one, not a symbolic
/// link that somebody left in its place.
class TreeDownload
{
public:
    TreeDownload(const CommandContext& context, const Options& options, const StorePath& source, std::string target)
        : m_context(context)
        , m_options(options)
        , m_source(source)
        , m_target(std::move(target))
        , m_batch(options.jobs, m_progress)
    {
    }

    bool run()
    {
        if (::mkdir(m_target.c_str(), 0777) != 0 && !isLocalFolder(m_target))
        {
            throw CommandError::fromErrno(m_target, errno);
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
                    m_batch.attempt([&] { entry.isFolder() ? makeFolder(name) : submitFile(name, entry); });
                }
            });
        m_progress.markTotalFinal();
        return m_batch.finish();
    }

private:
    void makeFolder(const std::string& name)
    {
        requireFolderAbove(name);
        m_source.child(name); // refuses names that do not lead back to this folder
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
                throw CommandError(local, "stands where a folder is to go", fsp::ErrorCode::AlreadyExists);
            }
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
                getFile(m_context, path, target, m_progress);
            });
    }

    void requireFolderAbove(const std::string& name) const
    {
        const std::size_t end = name.rfind('/');
        if (m_folders.count(end == std::string::npos ? "" : name.substr(0, end)) == 0)
        {
            throw CommandError(
                m_source.text() + "/" + name, "left out with its folder", fsp::ErrorCode::InvalidLocation);
        }
    }

    const CommandContext& m_context;
    const Options& m_options;
    const StorePath m_source;
    const std::string m_target;
    std::set<std::string> m_folders; // names of those that are known to be real folders in the target
    Progress m_progress;
    Batch m_batch; // last: its tasks use the members above
};

std::string localDestination(const Options& options, const StorePath& source)
{
    const bool into = !source.isRoot() && isLocalFolder(options.local);
    return into ? options.local + (options.local.ends_with('/') ? "" : "/") + source.name() : options.local;
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
    const bool isFile = !path.namesFolder() && context.fileExists(path);
    if (isFile || !options.recursive)
    {
        if (!isFile)
        {
            context.requireFile(path);
        }
        const auto attributes = context.fileAttributes(path);
        Progress progress;
        progress.addToTotal(attributes.size().value_or(0));
        progress.markTotalFinal();
        LocalTarget target(local, options.force, LocalTarget::Destination::NamedByUser);
        getFile(context, path, target, progress);
        return;
    }
    if (!context.folderExists(path))
    {
        throw CommandError(path.text(), "no such file or folder", fsp::ErrorCode::NotFound);
    }
    if (!TreeDownload(context, options, path, local).run())
    {
        context.markFailed();
    }
}

} // namespace

void addGetCommands(CLI::App& app, CommandContext& context)
{
    const auto options = std::make_shared<Options>();
    auto* command = app.add_subcommand("get", "Copy a file or a tree of the store to this machine");
    command->footer("An existing folder LOCAL is where it goes under its own name; any other LOCAL is the new name.\n"
                    "A file appears whole or not at all.");
    command->add_option("PATH", options->path, "A file, or a folder with -r")->required();
    command->add_option("LOCAL", options->local, "Where it goes, or - for standard output")->required();
    auto* recursive = command->add_flag("-r", options->recursive, "Copy a folder with everything in it");
    command->add_option("-j", options->jobs, "Files in flight at a time, with -r")
        ->check(CLI::Range(1, 64))
        ->capture_default_str();
    command->add_flag("-f", options->force, "Replace existing files");
    command->callback(
        [&context, options, recursive]
        {
            if (options->local == "-" && options->recursive)
            {
                throw CLI::ValidationError(recursive->get_name(), "a tree cannot go to standard output");
            }
            get(context, *options);
        });

    const auto path = std::make_shared<std::string>();
    auto* cat = app.add_subcommand("cat", "Write a file to standard output");
    cat->add_option("PATH", *path, "An existing file")->required();
    cat->callback([&context, path] { printFile(context, StorePath::parse(*path)); });
}

} // namespace cloudfs
