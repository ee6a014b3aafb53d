#include <storage/cloudprovider/TemporaryFiles.hpp>

#include "LogRecords.hpp"
#include "Mutex.hpp"

#include <boost/crc.hpp>
#include <boost/filesystem/operations.hpp>

#include <algorithm>
#include <cerrno>
#include <charconv>
#include <csignal>
#include <cstdio>
#include <fstream>
#include <memory>
#include <optional>
#include <sstream>
#include <string_view>

#include <dirent.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

namespace storage::cloudprovider
{

namespace
{

/// Return the target of a symbolic link, or nothing if it cannot be read.
std::string linkTarget(const char* path)
{
    boost::system::error_code error;
    return boost::filesystem::read_symlink(path, error).string();
}

/// Return the start time of a process in clock ticks.
/// @return empty text if there is no such process; nothing if that cannot be told
std::optional<std::string> startTimeOf(pid_t pid)
{
    if (::kill(pid, 0) != 0 && errno == ESRCH)
    {
        return "";
    }
    std::ifstream file("/proc/" + std::to_string(pid) + "/stat");
    std::string text;
    std::getline(file, text, '\0');
    // The second field, the name of the program in parentheses, may contain anything. The start time is field 22.
    std::istringstream fields(text.erase(0, text.rfind(')') + 1));
    for (int field = 3; field <= 22; ++field)
    {
        fields >> text;
    }
    return fields ? std::optional(text) : std::nullopt;
}

/// Return the PLACE of this process, see temporaryFilePrefix(), or nothing if /proc does not show it.
std::string findPlace()
{
    std::string boot;
    std::ifstream("/proc/sys/kernel/random/boot_id") >> boot;
    const std::string pids = linkTarget("/proc/self/ns/pid");
    // /proc may be that of another namespace, where this process has another id.
    if (boot.empty() || pids.empty() || linkTarget("/proc/self") != std::to_string(::getpid()))
    {
        return {};
    }
    const std::string text = boot + pids + linkTarget("/proc/self/ns/time"); // start times are relative to the latter
    boost::crc_32_type checksum;
    checksum.process_bytes(text.data(), text.size());
    char hex[9] = {};
    std::snprintf(hex, sizeof hex, "%08x", static_cast<unsigned>(checksum.checksum()));
    return hex;
}

/// Tell whether the process that created a file has ended.
/// @param name  of the file, without the prefix and the place: "PID-START-xxxxxx"
bool belongsToDeadProcess(std::string_view name)
{
    const char* const end = name.data() + name.size();
    pid_t pid = 0;
    const char* const pidEnd = std::from_chars(name.data(), end, pid).ptr;
    const char* const startEnd = std::find(std::min(pidEnd + 1, end), end, '-');
    if (pid <= 0 || pidEnd == end || *pidEnd != '-' || startEnd == end)
    {
        return false; // not one of our names
    }
    const auto start = startTimeOf(pid);
    return start && *start != std::string(pidEnd + 1, startEnd);
}

std::size_t removeFiles(const boost::filesystem::path& folder, const std::string& name)
{
    const std::string place = findPlace();
    const std::unique_ptr<DIR, int (*)(DIR*)> entries(::opendir(folder.c_str()), &::closedir);
    if (place.empty() || !entries)
    {
        return 0;
    }
    const std::string prefix = name + '-' + place + '-';
    const int directory = ::dirfd(entries.get());
    std::size_t removed = 0;
    while (const dirent* const entry = ::readdir(entries.get()))
    {
        const std::string_view file = entry->d_name;
        struct ::stat status = {};
        if (!file.starts_with(prefix) || ::fstatat(directory, entry->d_name, &status, AT_SYMLINK_NOFOLLOW) != 0 ||
            !S_ISREG(status.st_mode) || status.st_uid != ::geteuid() ||
            !belongsToDeadProcess(file.substr(prefix.size())))
        {
            continue;
        }
        if (::unlinkat(directory, entry->d_name, 0) == 0)
        {
            ++removed;
        }
        else if (errno != ENOENT) // another process may have removed it
        {
            logMessage(
                foundation::log::severity::warning, "Failed to delete DiskFile ", (folder / entry->d_name).string());
        }
    }
    return removed;
}

} // namespace

std::string temporaryFilePrefix(const std::string& name)
{
    struct Cache
    {
        Mutex mutex;
        pid_t pid GUARDED_BY(mutex) = 0; // differs in a child after fork()
        std::string process GUARDED_BY(mutex);
    };
    static Cache& cache = *new Cache; // never destroyed, because static destructors may create files
    const MutexLock lock(cache.mutex);
    const pid_t pid = ::getpid();
    if (cache.pid != pid)
    {
        const std::string place = findPlace();
        const std::string start = place.empty() ? std::string() : startTimeOf(pid).value_or("");
        cache.process = (start.empty() ? std::to_string(pid) : place + '-' + std::to_string(pid) + '-' + start) + '-';
        cache.pid = pid;
    }
    return name + '-' + cache.process;
}

std::size_t removeTemporaryFilesOfDeadProcesses(const std::string& folder, const std::string& name) noexcept
{
    try
    {
        return removeFiles(folder.empty() ? boost::filesystem::temp_directory_path() : folder, name);
    }
    catch (...)
    {
        logCaughtException();
        return 0;
    }
}

} // namespace storage::cloudprovider
