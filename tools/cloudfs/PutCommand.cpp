#include "Batch.hpp"
#include "CommandError.hpp"
#include "Commands.hpp"
#include "FolderSnapshot.hpp"
#include "LocalSource.hpp"
#include "LocalTree.hpp"
#include "Transfer.hpp"
#include "Validators.hpp"

#include <storage/clients/stores/OpenStore.hpp>

#include <filesystem>
#include <map>
#include <memory>
#include <string>
#include <system_error>

namespace cloudfs
{

namespace
{

struct Options
{
    std::string local;
    std::string path;
    bool recursive = false;
    bool force = false;
    unsigned jobs = 4; // the local store syncs each file; several files overlap these waits
};

void uploadFile(const CommandContext& context, const Options& options, LocalSource& source, const StorePath& path)
{
    Progress progress(context, !source.isTerminal());
    context.requireNoParentIsFile(path);
    const auto condition = context.requireCanStore(path, options.force);
    progress.addToTotal(source.size().value_or(0));
    progress.markTotalFinal();
    upload(context, path, source, progress);
}

/// Uploads a local folder and its contents. The thread that walks the tree creates each folder in the store before it
/// queues the files of that folder.
class TreeUpload : public LocalTreeVisitor
{
public:
    TreeUpload(const CommandContext& context, const Options& options, const StorePath& target)
        : m_context(context)
        , m_options(options)
        , m_target(target)
        , m_progress(context)
        , m_batch(options.jobs, m_progress)
    {
    }

    bool run()
    {
        requireNotTheStore(m_options.local);
        m_context.requireNoParentIsFile(m_target);
        makeFolder(m_target);
        walkLocalTree(m_options.local, *this);
        m_progress.markTotalFinal();
        return m_batch.finish();
    }

private:
    bool enterFolder(const std::string& local, const std::string& name) override
    {
        return m_batch.runNow(
            [&]
            {
                requireNotTheStore(local);
                makeFolder(m_target.child(name));
            });
    }

    void visitFile(const std::string& local, const std::string& name, std::uint64_t size) override
    {
        m_progress.addToTotal(size);
        m_batch.runNow(
            [&]
            {
                const StorePath path = m_target.child(name);
                m_batch.submit(
                    [this, local, path, size, snapshot = snapshotOf(path.parent())]
                    {
                        const auto condition = snapshot->requireCanStore(path, m_options.force, size);
                        LocalSource source(local);
                        upload(m_context, path, source, m_progress);
                    });
            });
    }

    void reportSkipped(const CommandError& reason) override { m_batch.reportFailure(reason.what()); }

    /// The snapshot of the folder that is being walked. Snapshots of folders that the walk has left are dropped here.
    std::shared_ptr<const FolderSnapshot> snapshotOf(const StorePath& folder)
    {
        const auto isLeft = [&](const std::string& text)
        { return folder.text() != text && !folder.text().starts_with(text == "/" ? text : text + '/'); };
        std::erase_if(m_snapshots, [&](const auto& entry) { return isLeft(entry.first); });
        auto& snapshot = m_snapshots[folder.text()];
        if (!snapshot)
        {
            snapshot = std::make_shared<FolderSnapshot>(m_context, folder);
        }
        return snapshot;
    }

    /// A store in its own folder would grow with each upload. And if this process opened and closed the index as a
    /// file, it would lose its locks on it.
    void requireNotTheStore(const std::string& local) const
    {
        const auto store = storage::clients::localStoreDirectory(m_context.storeUrl);
        std::error_code error;
        if (store && std::filesystem::equivalent(*store, local, error))
        {
            throw CommandError(local, "skipped: it is the folder of the store", fsp::ErrorCode::Unsupported);
        }
    }

    void makeFolder(const StorePath& path) const
    {
        const fsp::IProvider& provider = m_context.provider();
        if (m_context.fileExists(path))
        {
            throw CommandError(path.text(), "is a file, not a folder", fsp::ErrorCode::AlreadyExists);
        }
        if (m_context.folderPolicy == storage::cloudprovider::FolderPolicy::MarkerObjects)
        {
            m_context.translateErrors(path, [&] { provider.createFolderRecursive(path.iri()); });
        }
    }

    const CommandContext& m_context;
    const Options& m_options;
    const StorePath m_target;
    // By path: of the current folder and those above.
    std::map<std::string, std::shared_ptr<const FolderSnapshot>> m_snapshots;
    Progress m_progress;
    Batch m_batch; // last: its threads use the members above
};

void put(CommandContext& context, const Options& options)
{
    StorePath path = StorePath::parse(options.path);
    const std::string name = baseName(options.local);
    if (options.local == "-")
    {
        if (path.namesFolder())
        {
            throw CommandError(
                path.text(), "is a folder; standard input needs a file name", fsp::ErrorCode::InvalidLocation);
        }
        LocalSource source = LocalSource::standardInput();
        uploadFile(context, options, source, path);
    }
    else if (options.recursive && isLocalFolder(options.local))
    {
        // A tree such as "." has no name: its contents go directly into the folder.
        if (!TreeUpload(context, options, name.empty() ? path : path.resolveFile(name)).run())
        {
            context.markFailed();
        }
    }
    else
    {
        LocalSource source(options.local);
        uploadFile(context, options, source, path.resolveFile(name));
    }
}

} // namespace

void addPutCommand(CLI::App& app, CommandContext& context)
{
    const auto options = std::make_shared<Options>();
    auto* command = app.add_subcommand("put", "Upload a file or a folder");
    command->footer(
        "If PATH ends in \"/\", LOCAL is stored in that folder under its own name; otherwise PATH is the new\n"
        "name. The folder of a file need not exist. With -r, missing folders are created, symbolic links to\n"
        "files are followed, and entries that cannot be stored (links to folders, devices, the folder of the\n"
        "store, names that are not UTF-8 or end in a dot) are reported and skipped. With --folders prefix,\n"
        "empty folders are not stored.\n" +
        std::string(concurrentFileHelp));
    command->add_option("LOCAL", options->local, "A file, a folder with -r, or - for standard input")->required();
    command->add_option("PATH", options->path, "The destination in the store")->required();
    auto* recursive = command->add_flag("-r", options->recursive, "Upload a folder and its contents");
    command->add_option("-j", options->jobs, "Files to transfer at the same time with -r, 1 to 64")
        ->check(numberBetween(1, 64))
        ->type_name("N")
        ->capture_default_str();
    command->add_flag("-f", options->force, "Replace existing files");
    command->parse_complete_callback( // runs before the store is opened, which would create it
        [options, recursive]
        {
            if (options->local == "-" && options->recursive)
            {
                throw CLI::ValidationError(recursive->get_name(), "standard input is not a folder");
            }
        });
    command->callback([&context, options] { put(context, *options); });
}

} // namespace cloudfs
