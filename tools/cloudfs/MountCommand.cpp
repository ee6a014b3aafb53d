#include "Background.hpp"
#include "CommandError.hpp"
#include "Commands.hpp"
#include "Diagnostics.hpp"
#include "Interrupt.hpp"
#include "MountReport.hpp"
#include "Text.hpp"
#include "Validators.hpp"

#include <storage/clients/common/StoreCounters.hpp>
#include <storage/clients/decorators/CountingClient.hpp>
#include <storage/clients/decorators/FindInterface.hpp>
#include <storage/clients/stores/OpenStore.hpp>
#include <storage/cloudprovider/CloudExceptions.hpp>
#include <storage/mount/Mount.hpp>

#include <fmt/format.h>

#include <array>
#include <atomic>
#include <cctype>
#include <cerrno>
#include <chrono>
#include <cstdint>
#include <cstdlib>
#include <exception>
#include <fcntl.h>
#include <filesystem>
#include <functional>
#include <memory>
#include <poll.h>
#include <string>
#include <sys/resource.h>
#include <system_error>
#include <thread>
#include <unistd.h>

namespace cloudfs
{

namespace
{

struct Options
{
    std::string mountPoint;
    std::string cacheFolder;
    std::uint64_t cacheSize = 1ULL << 30U;
    std::uint64_t attributeTimeout = 1;
    std::size_t renameLimit = 10'000;
    uid_t user = ::getuid();
    gid_t group = ::getgid();
    std::string fileMode = "644";
    std::string folderMode = "755";
    bool readOnly = false;
    bool allowOther = false;
    bool background = false;
};

/// The folder for what every store keeps on this machine.
std::filesystem::path defaultCacheFolder()
{
    const auto from = [](const char* variable)
    {
        const char* value = std::getenv(variable);
        const std::filesystem::path path(value == nullptr ? "" : value);
        return path.is_absolute() ? path : std::filesystem::path();
    };
    const auto cache = from("XDG_CACHE_HOME");
    return (cache.empty() ? from("HOME") / ".cache" : cache) / "cloudfs";
}

/// A name for the files of a store, which is the same for the same store.
std::string nameOf(std::string storeUrl)
{
    if (const auto directory = storage::clients::localStoreDirectory(storeUrl))
    {
        storeUrl = "local:" + std::filesystem::weakly_canonical(*directory).native();
    }
    for (const char* const variable : {"AWS_ENDPOINT_URL_S3", "AWS_ENDPOINT_URL"})
    {
        const char* const value = std::getenv(variable);
        storeUrl += value == nullptr ? "" : fmt::format("?{}={}", variable, value);
    }
    std::string name = storeUrl.substr(0, storeUrl.find('?'));
    for (char& character : name)
    {
        character = std::isalnum(static_cast<unsigned char>(character)) != 0 ? character : '-';
    }
    return fmt::format("{}-{:016x}", name.substr(0, 60), std::hash<std::string>()(storeUrl));
}

mode_t modeOf(const std::string& octal)
{
    return static_cast<mode_t>(std::stoul(octal, nullptr, 8));
}

/// A pipe whose end for reading is at its end when a thread has done something.
class Ending
{
public:
    Ending()
    {
        if (::pipe2(m_pipe.data(), O_CLOEXEC) != 0)
        {
            throw std::system_error(errno, std::generic_category(), "pipe");
        }
    }
    Ending(const Ending&) = delete;
    Ending& operator=(const Ending&) = delete;
    ~Ending() { ::close(m_pipe[0]); }

    void isReached() { ::close(m_pipe[1]); }

    /// @throws interrupt::Interrupted
    void wait() { interrupt::waitUntilReady(m_pipe[0], POLLIN); }

private:
    std::array<int, 2> m_pipe{-1, -1};
};

/// Store what programs have written, and let the mount end.
///
/// @param ended       of the mount
/// @param isStopping  set by a second signal; ends requests in progress
void endMount(storage::mount::Mount& mount, Ending& ended, std::atomic<bool>& isStopping)
{
    interrupt::reset();
    std::thread sender(
        [&]
        {
            interrupt::blockSignalsInThisThread();
            try
            {
                if (const auto unsent = mount.unsent(); !unsent.empty())
                {
                    diagnostics::printLine(
                        fmt::format("storing {} files; another signal leaves them to the next mount", unsent.size()));
                }
                mount.sendAll(); // before programs lose the folder
            }
            catch (const std::exception& exception) // no memory, no thread
            {
                diagnostics::printLine(exception.what());
            }
            mount.stop();
        });
    try
    {
        ended.wait();
    }
    catch (const interrupt::Interrupted&)
    {
        isStopping = true;
    }
    sender.join();
}

/// Serve until the folder is unmounted or a signal arrives.
///
/// @param answers  called when programs can use the mount
void serve(storage::mount::Mount& mount, const std::string& mountPoint, const std::function<void()>& answers,
    std::atomic<bool>& isStopping)
{
    Ending ended;
    std::thread server(
        [&]
        {
            interrupt::blockSignalsInThisThread();
            mount.run();
            ended.isReached();
        });
    try
    {
        std::error_code ignored;
        [[maybe_unused]] const auto status = std::filesystem::status(mountPoint, ignored);
        answers();
        ended.wait();
    }
    catch (const interrupt::Interrupted&)
    {
        endMount(mount, ended, isStopping);
    }
    server.join();
}

/// Let a mount have many files open.
void raiseDescriptorLimit()
{
    struct rlimit limit = {};
    ::getrlimit(RLIMIT_NOFILE, &limit);
    limit.rlim_cur = limit.rlim_max;
    ::setrlimit(RLIMIT_NOFILE, &limit);
}

void mountStore(CommandContext& context, const Options& options)
{
    diagnostics::install(context.verbose);
    raiseDescriptorLimit();
    MountReport::blockSignal();
    std::atomic<bool> isStopping = false;
    const auto background = options.background ? std::make_unique<Background>() : nullptr;
    try
    {
        const std::filesystem::path root =
            options.cacheFolder.empty() ? defaultCacheFolder() : std::filesystem::path(options.cacheFolder);
        const auto folder = std::filesystem::absolute(root / nameOf(context.storeUrl));
        const auto disk = storage::clients::localStoreDirectory(context.storeUrl);
        const std::string mountPoint = std::filesystem::absolute(options.mountPoint);
        std::filesystem::create_directories(folder);
        const auto store =
            storage::clients::openStore(context.storeUrl, {.interrupted = [&] { return isStopping.load(); },
                                                              .createMissing = false,
                                                              .cache = {folder / "ranges", options.cacheSize}});
        const bool isCounting = storage::clients::findInterface<storage::clients::StoreCounters>(*store) != nullptr;
        const auto client = isCounting ? store : std::make_shared<storage::clients::CountingClient>(store);
        storage::mount::Mount mount(client, {.mountPoint = mountPoint,
                                                .source = context.storeUrl,
                                                .folder = folder,
                                                .folderPolicy = context.folderPolicy,
                                                .attributeTimeout = std::chrono::seconds(options.attributeTimeout),
                                                .user = options.user,
                                                .group = options.group,
                                                .fileMode = modeOf(options.fileMode),
                                                .folderMode = modeOf(options.folderMode),
                                                .renameLimit = options.renameLimit,
                                                .disk = disk ? std::filesystem::absolute(*disk) : "",
                                                .isReadOnly = options.readOnly,
                                                .allowsOthers = options.allowOther});
        {
            const MountReport report(mount, *client, folder / "status");
            serve(
                mount, mountPoint, [&] { background ? background->ready() : void(); }, isStopping);
        }
        for (const auto& file : mount.sendAll()) // if it was interrupted, each fails at once
        {
            diagnostics::printLine(text::printable(file.key) + " is not stored: " + text::printable(file.reason));
            context.markFailed();
        }
    }
    catch (const storage::cloudprovider::CloudException& exception)
    {
        throw CommandError::fromStore(context.storeForMessages(), exception);
    }
    catch (const CommandError&)
    {
        throw;
    }
    catch (const std::exception& exception)
    {
        throw CommandError(options.mountPoint, exception.what(), fsp::ErrorCode::Unknown);
    }
}

} // namespace

void addMountCommand(CLI::App& app, CommandContext& context)
{
    auto* command = app.add_subcommand("mount", "Show the store as a folder of this machine, until it is unmounted");
    auto options = std::make_shared<Options>();
    command->add_option("DIR", options->mountPoint, "An empty folder")->required();
    command->add_option("--cache-dir", options->cacheFolder,
        "A folder for what is not stored yet, and for what was read; by default $XDG_CACHE_HOME/cloudfs");
    command->add_option("--cache-size", options->cacheSize, "Bytes of the files that keep what was read")
        ->check(numberBetween(16U << 20U, 1ULL << 50U))
        ->capture_default_str();
    command
        ->add_option("--attr-timeout", options->attributeTimeout,
            "Seconds for which names and attributes count without asking the store")
        ->check(numberBetween(0, 86'400));
    command
        ->add_option("--rename-limit", options->renameLimit, "Renaming a folder with more files than this is refused")
        ->capture_default_str();
    command->add_option("--uid", options->user, "The owner of all files");
    command->add_option("--gid", options->group, "The group of all files");
    command->add_option("--file-mode", options->fileMode, "Permissions of files, octal")->capture_default_str();
    command->add_option("--dir-mode", options->folderMode, "Permissions of folders, octal")->capture_default_str();
    command->add_flag("--read-only", options->readOnly, "Refuse every change");
    command->add_flag("--allow-other", options->allowOther, "Let other users use the mount, as permissions allow");
    command->footer(
        "Closing a file stores it; an error of that is an error of close(). docs/mount.md has all promises.\n"
        "Ends when the folder is unmounted, or with Ctrl-C or SIGTERM: what is not stored is stored, and then\n"
        "the folder is unmounted. If some files cannot be stored, the exit status is 1, and the next mount\n"
        "of this store with the same cache folder tries again.");
    command->add_flag("--background", options->background, "Return as soon as the folder can be used");
    command->callback([&context, options] { mountStore(context, *options); });
}

} // namespace cloudfs
