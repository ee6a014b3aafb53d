#include "Batch.hpp"
#include "CommandError.hpp"
#include "Commands.hpp"
#include "FolderSnapshot.hpp"
#include "LocalSource.hpp"
#include "LocalTree.hpp"
#include "Transfer.hpp"

#include <map>
#include <memory>
#include <string>

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
    unsigned jobs = 4; // a durable store waits for the disk; several files share the wait
};

void putFile(const CommandContext& context, const Options& options, LocalSource& source, const StorePath& path)
{
    context.requireNoParentIsFile(path);
    context.requireCanStore(path, options.force);
    Progress progress;
    progress.addToTotal(source.size().value_or(0));
    progress.markTotalFinal();
    upload(context, path, wholeFile, 0, source, progress);
}

/// Puts a folder of the machine with everything in it. Folders are created by the walking thread, in front of the files
/// in them, which go to the batch.
class TreeUpload : public LocalTreeVisitor
{
public:
    TreeUpload(const CommandContext& context, const Options& options, const StorePath& target)
        : m_context(context)
        , m_options(options)
        , m_target(target)
        , m_batch(options.jobs, m_progress)
    {
    }

    bool run()
    {
        m_context.requireNoParentIsFile(m_target);
        makeFolder(m_target);
        walkLocalTree(m_options.local, *this);
        m_progress.markTotalFinal();
        return m_batch.finish();
    }

private:
    bool enterFolder(const std::string&, const std::string& name) override
    {
        return m_batch.attempt([&] { makeFolder(m_target.child(name)); });
    }

    void visitFile(const std::string& local, const std::string& name, std::uint64_t size) override
    {
        m_progress.addToTotal(size);
        m_batch.attempt(
            [&]
            {
                const StorePath path = m_target.child(name);
                m_batch.submit(
                    [this, local, path, size, snapshot = snapshotOf(path.parent())]
                    {
                        snapshot->requireCanStore(path, m_options.force, size);
                        LocalSource source(local);
                        upload(m_context, path, wholeFile, 0, source, m_progress);
                    });
            });
    }

    void reportSkipped(const CommandError& reason) override { m_batch.reportFailure(reason.what()); }

    /// Those of a folder that the walk is in.
    std::shared_ptr<const FolderSnapshot> snapshotOf(const StorePath& folder)
    {
        const auto isDone = [&](const std::string& text)
        { return folder.text() != text && !folder.text().starts_with(text == "/" ? text : text + '/'); };
        std::erase_if(m_snapshots, [&](const auto& entry) { return isDone(entry.first); });
        auto& snapshot = m_snapshots[folder.text()];
        if (!snapshot)
        {
            snapshot = std::make_shared<FolderSnapshot>(m_context, folder);
        }
        return snapshot;
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
    std::map<std::string, std::shared_ptr<const FolderSnapshot>>
        m_snapshots; // by path: the current folder and those above
    Progress m_progress;
    Batch m_batch; // last: its tasks use the members above
};

void put(CommandContext& context, const Options& options)
{
    StorePath path = StorePath::parse(options.path);
    const std::string name = baseName(options.local);
    if (options.local == "-")
    {
        if (path.namesFolder())
        {
            throw CommandError(path.text(), "names a folder; standard input needs the name of a file",
                fsp::ErrorCode::InvalidLocation);
        }
        LocalSource source = LocalSource::standardInput();
        putFile(context, options, source, path);
    }
    else if (options.recursive && isLocalFolder(options.local))
    {
        // A tree such as "." has no name to keep: its contents go into the folder itself.
        if (!TreeUpload(context, options, name.empty() ? path : path.resolveFile(name)).run())
        {
            context.markFailed();
        }
    }
    else
    {
        LocalSource source(options.local);
        putFile(context, options, source, path.resolveFile(name));
    }
}

} // namespace

void addPutCommand(CLI::App& app, CommandContext& context)
{
    const auto options = std::make_shared<Options>();
    auto* command = app.add_subcommand("put", "Copy a file or a tree of this machine into the store");
    command->footer(
        "A PATH that ends in \"/\" is a folder in which LOCAL keeps its name; any other PATH is the new name.\n"
        "A file may be put into a folder that does not exist. With -r missing folders are created, symbolic\n"
        "links to files are followed, and what cannot be stored (links to folders, devices, names that are\n"
        "not UTF-8 or end in a dot) is reported and left out. With --folders prefix empty folders are not kept.\n"
        "With -r, what stands in a folder of the store is looked up once, when the first file for it comes: what\n"
        "somebody else stores there later may be replaced, even without -f. Files above 5 MiB are looked for\n"
        "again when their turn comes.");
    command->add_option("LOCAL", options->local, "A file, a folder with -r, or - for standard input")->required();
    command->add_option("PATH", options->path, "Where it goes")->required();
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
                throw CLI::ValidationError(recursive->get_name(), "standard input is not a tree");
            }
            put(context, *options);
        });
}

} // namespace cloudfs
