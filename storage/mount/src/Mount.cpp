#define FUSE_USE_VERSION 314

#include <storage/mount/Mount.hpp>

#include "FileSystem.hpp"
#include "Names.hpp"

#include <storage/cloudprovider/Logger.hpp>

#include <foundation/log/Severity.hpp>

#include <fmt/format.h>
#include <fuse3/fuse_lowlevel.h>
#include <sys/statvfs.h>

#include <algorithm>
#include <array>
#include <atomic>
#include <cerrno>
#include <climits>
#include <csignal>
#include <cstdarg>
#include <cstdio>
#include <cstring>
#include <memory>
#include <mutex>
#include <pthread.h>
#include <span>
#include <thread>
#include <unordered_map>
#include <utility>

namespace storage::mount
{

namespace
{

constexpr unsigned maxThreads = 32;
constexpr int stopSignal = SIGUSR2;

timespec toTimespec(Time time)
{
    const auto sinceEpoch = time.time_since_epoch();
    const auto seconds = std::chrono::floor<std::chrono::seconds>(sinceEpoch);
    return {seconds.count(), (sinceEpoch - seconds).count()};
}

Time toTime(const timespec& time)
{
    return Time(std::chrono::seconds(time.tv_sec) + std::chrono::nanoseconds(time.tv_nsec));
}

thread_local std::string* messages = nullptr; // of libfuse, for an exception; null: they are logged

/// Take what libfuse would print to standard error.
[[gnu::format(printf, 2, 0)]] void takeMessage(fuse_log_level, const char* format, va_list arguments)
{
    std::array<char, 500> text{};
    std::vsnprintf(text.data(), text.size(), format, arguments); // NOLINT(cert-err33-c): a cut message will do
    std::string line = text.data();
    line.resize(line.find_last_not_of('\n') + 1);
    if (messages != nullptr)
    {
        *messages += (messages->empty() ? "" : "; ") + line;
        return;
    }
    cloudprovider::getLogger().write(foundation::log::severity::warning, line);
}

template <typename Handle>
Handle& handleOf(const fuse_file_info* info)
{
    return *reinterpret_cast<Handle*>(info->fh); // NOLINT(performance-no-int-to-ptr): that is how libfuse keeps it
}

} // namespace

/// Answers the kernel's requests.
class Mount::Server
{
public:
    Server(std::shared_ptr<cloudprovider::CloudClient> client, const MountSettings& settings)
        : m_settings(settings)
        , m_store(std::move(client))
        , m_files(m_store, fileSystemSettings(settings))
    {
        m_files.recover();
        const std::string options = fmt::format("fsname={},subtype=cloudfs,default_permissions{}{}",
            escaped(settings.source), settings.isReadOnly ? ",ro" : "", settings.allowsOthers ? ",allow_other" : "");
        std::array<const char*, 3> arguments{"cloudfs", "-o", options.c_str()};
        std::string reason;
        messages = &reason;
        ::fuse_set_log_func(&takeMessage);
        fuse_args args = FUSE_ARGS_INIT(arguments.size(), const_cast<char**>(arguments.data()));
        const fuse_lowlevel_ops operations = this->operations();
        m_session = ::fuse_session_new(&args, &operations, sizeof(operations), this);
        ::fuse_opt_free_args(&args);
        if (m_session == nullptr || ::fuse_session_mount(m_session, settings.mountPoint.c_str()) != 0)
        {
            m_session != nullptr ? ::fuse_session_destroy(m_session) : void();
            messages = nullptr;
            throw Failure(EIO, "mounting failed: " + reason);
        }
        messages = nullptr;
    }

    Server(const Server&) = delete;
    Server& operator=(const Server&) = delete;

    ~Server()
    {
        ::fuse_session_unmount(m_session);
        ::fuse_session_destroy(m_session);
    }

    void run()
    {
        const std::unique_ptr<fuse_loop_config, void (*)(fuse_loop_config*)> config(
            ::fuse_loop_cfg_create(), &::fuse_loop_cfg_destroy);
        ::fuse_loop_cfg_set_max_threads(config.get(), maxThreads);
        struct sigaction action = {}, before = {};
        action.sa_handler = [](int) {};
        ::sigaction(stopSignal, &action, &before);
        m_runner = ::pthread_self();
        m_isRunning = true;
        ::fuse_session_loop_mt(m_session, config.get());
        m_isRunning = false;
        ::sigaction(stopSignal, &before, nullptr);
    }

    void stop()
    {
        ::fuse_session_exit(m_session);
        // libfuse waits until a signal arrives, and looks then. One that arrives just before it waits is lost.
        while (m_isRunning)
        {
            ::pthread_kill(m_runner, stopSignal);
            std::this_thread::sleep_for(std::chrono::milliseconds(10));
        }
    }

    FileSystem& files() noexcept { return m_files; }

private:
    static FileSystemSettings fileSystemSettings(const MountSettings& settings)
    {
        std::filesystem::create_directory(settings.folder);
        std::filesystem::permissions(settings.folder, std::filesystem::perms::owner_all);
        return {settings.folder, settings.folderPolicy, settings.attributeTimeout, settings.fileMode,
            settings.folderMode, settings.renameLimit};
    }

    /// Options are separated by commas.
    static std::string escaped(std::string text)
    {
        for (std::size_t at = 0; (at = text.find_first_of(",\\", at)) != std::string::npos; at += 2)
        {
            text.insert(at, 1, '\\');
        }
        return text;
    }

    template <typename Handle>
    void keep(fuse_file_info& info, Handle handle)
    {
        auto kept = std::make_shared<Handle>(std::move(handle));
        info.fh = reinterpret_cast<std::uint64_t>(kept.get());
        const std::lock_guard lock(m_handlesMutex);
        m_handles.emplace(info.fh, std::move(kept));
    }

    /// Take over what keep() has kept.
    template <typename Handle>
    std::shared_ptr<Handle> take(const fuse_file_info* info)
    {
        const std::lock_guard lock(m_handlesMutex);
        const auto kept = m_handles.find(info->fh);
        auto handle = std::static_pointer_cast<Handle>(std::move(kept->second));
        m_handles.erase(kept);
        return handle;
    }

    static Server& of(fuse_req_t request) { return *static_cast<Server*>(::fuse_req_userdata(request)); }

    /// Answer a request, with an error if `respond` throws.
    template <typename Respond>
    static void answer(fuse_req_t request, const char* operation, NodeId node, Respond respond)
    {
        try
        {
            respond(of(request).m_files);
        }
        catch (...)
        {
            const Failure failure = Failure::current();
            if (failure.error() == EIO || failure.error() == ETIMEDOUT || failure.error() == EACCES)
            {
                cloudprovider::getLogger().write(
                    foundation::log::severity::warning, fmt::format("{} of node {} failed with {}: {}", operation, node,
                                                            ::strerrorname_np(failure.error()), failure.what()));
            }
            ::fuse_reply_err(request, failure.error());
        }
    }

    double timeout() const { return std::chrono::duration<double>(m_settings.attributeTimeout).count(); }

    struct stat statusOf(const Attributes& attributes) const
    {
        struct stat status = {};
        status.st_ino = attributes.inode;
        status.st_mode = (attributes.isFolder ? S_IFDIR : S_IFREG) | attributes.mode;
        status.st_nlink = attributes.isRemoved ? 0 : 1; // also for folders: it tells that nobody counts those inside
        status.st_uid = m_settings.user;
        status.st_gid = m_settings.group;
        status.st_size = static_cast<off_t>(attributes.size);
        status.st_blocks = static_cast<blkcnt_t>((attributes.size + 511) / 512);
        status.st_blksize = 128 << 10;
        status.st_mtim = status.st_atim = toTimespec(attributes.modified);
        status.st_ctim = toTimespec(attributes.changed);
        return status;
    }

    fuse_entry_param entryOf(const std::optional<Attributes>& attributes) const
    {
        fuse_entry_param entry = {};
        entry.attr_timeout = entry.entry_timeout = timeout();
        if (attributes)
        {
            entry.ino = attributes->node;
            entry.attr = statusOf(*attributes);
        }
        return entry;
    }

    static void replyEntry(fuse_req_t request, const std::optional<Attributes>& attributes)
    {
        const fuse_entry_param entry = of(request).entryOf(attributes);
        if (::fuse_reply_entry(request, &entry) != 0 && attributes)
        {
            of(request).m_files.forget(attributes->node, 1); // the program was interrupted
        }
    }

    static void replyAttributes(fuse_req_t request, const Attributes& attributes)
    {
        const struct stat status = of(request).statusOf(attributes);
        ::fuse_reply_attr(request, &status, of(request).timeout());
    }

    static void init(void*, fuse_conn_info* connection)
    {
        // The kernel would collect writes and set times itself, and report a full disk too late.
        connection->want &= ~static_cast<unsigned>(FUSE_CAP_WRITEBACK_CACHE);
        connection->max_background = maxThreads;
    }

    static void lookup(fuse_req_t request, fuse_ino_t parent, const char* name)
    {
        answer(request, "lookup", parent, [&](FileSystem& files) { replyEntry(request, files.lookup(parent, name)); });
    }

    static void forget(fuse_req_t request, fuse_ino_t node, std::uint64_t references)
    {
        of(request).m_files.forget(node, references);
        ::fuse_reply_none(request);
    }

    static void forgetMany(fuse_req_t request, std::size_t count, fuse_forget_data* forgets)
    {
        for (const fuse_forget_data& each : std::span(forgets, count))
        {
            of(request).m_files.forget(each.ino, each.nlookup);
        }
        ::fuse_reply_none(request);
    }

    static void getAttributes(fuse_req_t request, fuse_ino_t node, fuse_file_info*)
    {
        answer(request, "stat", node, [&](FileSystem& files) { replyAttributes(request, files.attributes(node)); });
    }

    static void setAttributes(fuse_req_t request, fuse_ino_t node, struct stat* status, int what, fuse_file_info*)
    {
        answer(request, "setting attributes", node,
            [&](FileSystem& files)
            {
                const Server& server = of(request);
                const bool isOwnerChanged =
                    ((what & FUSE_SET_ATTR_UID) != 0 && status->st_uid != server.m_settings.user) ||
                    ((what & FUSE_SET_ATTR_GID) != 0 && status->st_gid != server.m_settings.group);
                if (isOwnerChanged)
                {
                    throw Failure(EPERM, "all files have the owner of the mount");
                }
                AttributeChanges changes;
                if ((what & FUSE_SET_ATTR_SIZE) != 0)
                {
                    changes.size = static_cast<std::uint64_t>(status->st_size);
                }
                if ((what & FUSE_SET_ATTR_MODE) != 0)
                {
                    changes.mode = status->st_mode & 07777U;
                }
                if ((what & FUSE_SET_ATTR_MTIME) != 0)
                {
                    changes.modified = (what & FUSE_SET_ATTR_MTIME_NOW) != 0 ? now() : toTime(status->st_mtim);
                }
                replyAttributes(request, files.setAttributes(node, changes));
            });
    }

    static void createFolder(fuse_req_t request, fuse_ino_t parent, const char* name, mode_t mode)
    {
        answer(request, "mkdir", parent,
            [&](FileSystem& files) { replyEntry(request, files.createFolder(parent, name, mode)); });
    }

    static void removeFile(fuse_req_t request, fuse_ino_t parent, const char* name)
    {
        answer(request, "unlink", parent,
            [&](FileSystem& files)
            {
                files.removeFile(parent, name);
                ::fuse_reply_err(request, 0);
            });
    }

    static void removeFolder(fuse_req_t request, fuse_ino_t parent, const char* name)
    {
        answer(request, "rmdir", parent,
            [&](FileSystem& files)
            {
                files.removeFolder(parent, name);
                ::fuse_reply_err(request, 0);
            });
    }

    static void rename(fuse_req_t request, fuse_ino_t parent, const char* name, fuse_ino_t newParent,
        const char* newName, unsigned flags)
    {
        answer(request, "rename", parent,
            [&](FileSystem& files)
            {
                if ((flags & ~static_cast<unsigned>(RENAME_NOREPLACE)) != 0)
                {
                    throw Failure(EINVAL, "names cannot be exchanged in one step");
                }
                files.rename(parent, name, newParent, newName, (flags & RENAME_NOREPLACE) == 0);
                ::fuse_reply_err(request, 0);
            });
    }

    static void link(fuse_req_t request, fuse_ino_t, fuse_ino_t, const char*) { ::fuse_reply_err(request, EPERM); }

    static void symlink(fuse_req_t request, const char*, fuse_ino_t, const char*) { ::fuse_reply_err(request, EPERM); }

    static void makeNode(fuse_req_t request, fuse_ino_t parent, const char* name, mode_t mode, dev_t)
    {
        answer(request, "mknod", parent,
            [&](FileSystem& files)
            {
                if (!S_ISREG(mode))
                {
                    throw Failure(EPERM, "a store has only files and folders");
                }
                auto [attributes, file] = files.create(parent, name, mode);
                files.release(file);
                replyEntry(request, attributes);
            });
    }

    /// The kernel may believe for a while that a name is free which another program has created.
    static std::pair<Attributes, FileHandle> createOrOpen(
        FileSystem& files, fuse_ino_t parent, const char* name, mode_t mode, int flags)
    {
        try
        {
            return files.create(parent, name, mode);
        }
        catch (const Failure& failure)
        {
            if (failure.error() != EEXIST || (flags & O_EXCL) != 0)
            {
                throw;
            }
        }
        const auto found = files.lookup(parent, name);
        if (!found)
        {
            throw Failure(ESTALE, "the file was removed meanwhile");
        }
        try
        {
            FileHandle file = files.open(found->node, (flags & O_TRUNC) != 0);
            return {files.attributes(found->node), std::move(file)};
        }
        catch (...)
        {
            files.forget(found->node, 1);
            throw;
        }
    }

    static void create(fuse_req_t request, fuse_ino_t parent, const char* name, mode_t mode, fuse_file_info* info)
    {
        answer(request, "create", parent,
            [&](FileSystem& files)
            {
                auto [attributes, file] = createOrOpen(files, parent, name, mode, info->flags);
                of(request).keep(*info, std::move(file));
                const fuse_entry_param entry = of(request).entryOf(attributes);
                if (::fuse_reply_create(request, &entry, info) != 0)
                {
                    files.release(*of(request).take<FileHandle>(info));
                    files.forget(attributes.node, 1);
                }
            });
    }

    static void open(fuse_req_t request, fuse_ino_t node, fuse_file_info* info)
    {
        answer(request, "open", node,
            [&](FileSystem& files)
            {
                FileHandle file = files.open(node, (info->flags & O_TRUNC) != 0);
                info->keep_cache = file.keepsPages;
                of(request).keep(*info, std::move(file));
                if (::fuse_reply_open(request, info) != 0)
                {
                    files.release(*of(request).take<FileHandle>(info));
                }
            });
    }

    static void read(fuse_req_t request, fuse_ino_t node, std::size_t size, off_t offset, fuse_file_info* info)
    {
        answer(request, "read", node,
            [&](FileSystem& files)
            {
                const auto bytes = std::make_unique_for_overwrite<char[]>(size);
                const std::size_t count =
                    files.read(handleOf<FileHandle>(info), static_cast<std::uint64_t>(offset), bytes.get(), size);
                ::fuse_reply_buf(request, bytes.get(), count);
            });
    }

    static void write(
        fuse_req_t request, fuse_ino_t node, const char* bytes, std::size_t size, off_t offset, fuse_file_info* info)
    {
        answer(request, "write", node,
            [&](FileSystem& files)
            {
                files.write(handleOf<FileHandle>(info), static_cast<std::uint64_t>(offset), bytes, size);
                ::fuse_reply_write(request, size);
            });
    }

    static void flush(fuse_req_t request, fuse_ino_t node, fuse_file_info* info)
    {
        answer(request, "close", node,
            [&](FileSystem& files)
            {
                files.flush(handleOf<FileHandle>(info));
                ::fuse_reply_err(request, 0);
            });
    }

    static void sync(fuse_req_t request, fuse_ino_t node, int, fuse_file_info* info)
    {
        answer(request, "fsync", node,
            [&](FileSystem& files)
            {
                files.sync(handleOf<FileHandle>(info));
                ::fuse_reply_err(request, 0);
            });
    }

    static void release(fuse_req_t request, fuse_ino_t, fuse_file_info* info)
    {
        of(request).m_files.release(*of(request).take<FileHandle>(info));
        ::fuse_reply_err(request, 0);
    }

    static void openFolder(fuse_req_t request, fuse_ino_t node, fuse_file_info* info)
    {
        answer(request, "opendir", node,
            [&](FileSystem& files)
            {
                of(request).keep(*info, files.openFolder(node));
                if (::fuse_reply_open(request, info) != 0)
                {
                    files.release(*of(request).take<FolderHandle>(info));
                }
            });
    }

    static void readFolder(fuse_req_t request, fuse_ino_t node, std::size_t size, off_t offset, fuse_file_info* info)
    {
        replyEntries(request, node, size, offset, info, false);
    }

    static void readFolderPlus(
        fuse_req_t request, fuse_ino_t node, std::size_t size, off_t offset, fuse_file_info* info)
    {
        replyEntries(request, node, size, offset, info, true);
    }

    /// @param offset  index of the first entry: 0 is ".", 1 is ".."
    static void replyEntries(
        fuse_req_t request, fuse_ino_t node, std::size_t size, off_t offset, fuse_file_info* info, bool withAttributes)
    {
        answer(request, "readdir", node,
            [&](FileSystem& files)
            {
                FolderHandle& folder = handleOf<FolderHandle>(info);
                files.list(folder, offset == 0);
                const auto bytes = std::make_unique_for_overwrite<char[]>(size);
                std::size_t used = 0;
                for (std::size_t index = static_cast<std::size_t>(offset); index < folder.entries.size() + 2; ++index)
                {
                    const bool isDot = index < 2;
                    const std::string name = isDot ? std::string(index + 1, '.') : folder.entries[index - 2].name;
                    const bool isFolder = isDot || folder.entries[index - 2].found.isFolder;
                    std::optional<Attributes> attributes;
                    if (withAttributes && !isDot)
                    {
                        attributes = files.lookup(folder, folder.entries[index - 2]);
                    }
                    fuse_entry_param entry = of(request).entryOf(attributes);
                    if (!attributes)
                    {
                        entry.attr.st_mode = isFolder ? S_IFDIR : S_IFREG;
                        entry.attr.st_ino = ~0ULL; // not known
                    }
                    const std::size_t needed = withAttributes
                                                   ? ::fuse_add_direntry_plus(request, bytes.get() + used, size - used,
                                                         name.c_str(), &entry, static_cast<off_t>(index + 1))
                                                   : ::fuse_add_direntry(request, bytes.get() + used, size - used,
                                                         name.c_str(), &entry.attr, static_cast<off_t>(index + 1));
                    if (needed > size - used)
                    {
                        attributes ? files.forget(attributes->node, 1) : void();
                        break;
                    }
                    used += needed;
                }
                ::fuse_reply_buf(request, bytes.get(), used);
            });
    }

    static void releaseFolder(fuse_req_t request, fuse_ino_t, fuse_file_info* info)
    {
        of(request).m_files.release(*of(request).take<FolderHandle>(info));
        ::fuse_reply_err(request, 0);
    }

    static void syncFolder(fuse_req_t request, fuse_ino_t, int, fuse_file_info*)
    {
        ::fuse_reply_err(request, 0); // names are in the store when the call that made them returns
    }

    static void statistics(fuse_req_t request, fuse_ino_t)
    {
        struct statvfs space = {};
        const auto& disk = of(request).m_settings.disk;
        if (!disk.empty() && ::statvfs(disk.c_str(), &space) == 0)
        {
            ::fuse_reply_statfs(request, &space);
            return;
        }
        space.f_bsize = space.f_frsize = 4096;
        space.f_blocks = space.f_bfree = space.f_bavail = 1ULL << 40U;
        space.f_files = space.f_ffree = space.f_favail = 1ULL << 40U;
        space.f_namemax = NAME_MAX;
        ::fuse_reply_statfs(request, &space);
    }

    static fuse_lowlevel_ops operations()
    {
        fuse_lowlevel_ops table = {};
        table.init = &init;
        table.lookup = &lookup;
        table.forget = &forget;
        table.forget_multi = &forgetMany;
        table.getattr = &getAttributes;
        table.setattr = &setAttributes;
        table.mknod = &makeNode;
        table.mkdir = &createFolder;
        table.unlink = &removeFile;
        table.rmdir = &removeFolder;
        table.rename = &rename;
        table.link = &link;
        table.symlink = &symlink;
        table.create = &create;
        table.open = &open;
        table.read = &read;
        table.write = &write;
        table.flush = &flush;
        table.fsync = &sync;
        table.release = &release;
        table.opendir = &openFolder;
        table.readdir = &readFolder;
        table.readdirplus = &readFolderPlus;
        table.releasedir = &releaseFolder;
        table.fsyncdir = &syncFolder;
        table.statfs = &statistics;
        return table;
    }

    const MountSettings m_settings;
    MountedStore m_store;
    FileSystem m_files;
    std::mutex m_handlesMutex;
    std::unordered_map<std::uint64_t, std::shared_ptr<void>> m_handles; // open files and folders, also at the end
    fuse_session* m_session = nullptr;
    pthread_t m_runner{};                  // set before m_isRunning
    std::atomic<bool> m_isRunning = false; // run() waits in libfuse
};

Mount::Mount(std::shared_ptr<cloudprovider::CloudClient> client, const MountSettings& settings)
    : m_server(std::make_unique<Server>(std::move(client), settings))
{
}

Mount::~Mount() = default;

void Mount::run()
{
    m_server->run();
}

void Mount::stop()
{
    m_server->stop();
}

std::vector<Unsent> Mount::unsent()
{
    return m_server->files().unsent();
}

std::vector<NotStored> Mount::sendAll()
{
    return m_server->files().sendAll();
}

} // namespace storage::mount
