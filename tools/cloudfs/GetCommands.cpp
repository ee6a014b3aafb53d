#include "Batch.hpp"
#include "Commands.hpp"
#include "Failure.hpp"
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

void getFile(const Session& session, const StorePath& path, LocalTarget& target, Progress& progress)
{
    download(
        session, path, [&](const char* data, std::size_t size) { target.write(data, size); }, progress);
    target.commit();
}

void printFile(const Session& session, const StorePath& path)
{
    session.requireFile(path);
    StandardOutput output;
    Progress progress(false);
    download(
        session, path, [&](const char* data, std::size_t size) { output.write(data, size); }, progress);
}

/// Gets a folder of the store with everything in it. Local folders are created by the listing thread, in front of the
/// files in them, which go to the batch.
///
/// Nothing is written outside of the target: each name must be a plain one, and each folder a real one, not a symbolic
/// link that somebody left in its place.
class TreeGet
{
public:
    TreeGet(const Session& session, const Options& options, const StorePath& source, std::string target)
        : m_session(session)
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
            throw Failure::ofSystem(m_target, errno);
        }
        m_folders.insert("");
        m_session.at(m_source,
            [&]
            {
                const auto entries = m_session.provider().listAllRecursive(m_source.iri());
                while (entries->hasNext())
                {
                    interrupt::throwIfPending();
                    entries->next();
                    const fsp::FolderEntry entry = entries->getCurrent();
                    const std::string name = fl::i18n::ustring_to_utf8(entry.name());
                    m_batch.attempt([&] { entry.isFolder() ? makeFolder(name) : submitFile(name, entry); });
                }
            });
        m_progress.completeExpectation();
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
                throw Failure::ofSystem(local, error);
            }
            if (!S_ISDIR(status.st_mode))
            {
                throw Failure(local, "stands where a folder is to go", fsp::ErrorCode::AlreadyExists);
            }
        }
        m_folders.insert(name);
    }

    void submitFile(const std::string& name, const fsp::FolderEntry& entry)
    {
        requireFolderAbove(name);
        const StorePath path = m_source.child(name);
        m_progress.expect(entry.fileAttributes().size().value_or(0));
        m_batch.submit(
            [this, path, local = m_target + "/" + name]
            {
                LocalTarget target(local, m_options.force, LocalTarget::Place::InTree);
                getFile(m_session, path, target, m_progress);
            });
    }

    void requireFolderAbove(const std::string& name) const
    {
        const std::size_t end = name.rfind('/');
        if (m_folders.count(end == std::string::npos ? "" : name.substr(0, end)) == 0)
        {
            throw Failure(m_source.text() + "/" + name, "left out with its folder", fsp::ErrorCode::InvalidLocation);
        }
    }

    const Session& m_session;
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

void get(Session& session, const Options& options)
{
    const StorePath path = StorePath::parse(options.path);
    if (options.local == "-")
    {
        printFile(session, path);
        return;
    }
    const std::string local = localDestination(options, path);
    const bool isFile =
        !path.namesFolder() && session.at(path, [&] { return session.provider().fileExists(path.iri()); });
    if (isFile || !options.recursive)
    {
        if (!isFile)
        {
            session.requireFile(path);
        }
        const auto attributes = session.at(path, [&] { return session.provider().getFileAttributes(path.iri()); });
        Progress progress;
        progress.expect(attributes.size().value_or(0));
        progress.completeExpectation();
        LocalTarget target(local, options.force, LocalTarget::Place::Named);
        getFile(session, path, target, progress);
        return;
    }
    if (!session.at(path, [&] { return session.provider().folderExists(path.iri()); }))
    {
        throw Failure(path.text(), "no such file or folder", fsp::ErrorCode::NotFound);
    }
    if (!TreeGet(session, options, path, local).run())
    {
        session.noteFailure();
    }
}

} // namespace

void addGetCommands(CLI::App& app, Session& session)
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
        [&session, options, recursive]
        {
            if (options->local == "-" && options->recursive)
            {
                throw CLI::ValidationError(recursive->get_name(), "a tree cannot go to standard output");
            }
            get(session, *options);
        });

    const auto path = std::make_shared<std::string>();
    auto* cat = app.add_subcommand("cat", "Write a file to standard output");
    cat->add_option("PATH", *path, "An existing file")->required();
    cat->callback([&session, path] { printFile(session, StorePath::parse(*path)); });
}

} // namespace cloudfs
