// Preloaded into the program by power.py. Before each sync of a file or folder below $RECORDED, writes into $RECORDING
// what a loss of power can leave: the N-th time, N.names gets the number and path of each file, N.synced the number of
// the file or the path of the folder that is synced, and N.FILE the bytes of each file that has changed since.

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <map>
#include <mutex>
#include <string>
#include <tuple>
#include <utility>

#include <sys/stat.h>
#include <sys/syscall.h>
#include <unistd.h>

namespace
{

namespace fs = std::filesystem;

void record(int descriptor)
{
    static std::mutex mutex;
    static unsigned number = 0;
    static std::map<ino_t, std::tuple<off_t, time_t, long>> known; // sizes and times of files
    const std::lock_guard lock(mutex);
    const fs::path synced = fs::read_symlink("/proc/self/fd/" + std::to_string(descriptor));
    if (!synced.native().starts_with(std::getenv("RECORDED")))
    {
        return;
    }
    const std::string name = std::getenv("RECORDING") + ("/" + std::to_string(number++)) + '.';
    std::ofstream names(name + "names");
    for (const auto& entry : fs::recursive_directory_iterator(std::getenv("RECORDED")))
    {
        struct stat status = {};
        if (::lstat(entry.path().c_str(), &status) != 0 || !S_ISREG(status.st_mode))
        {
            continue; // a folder, or another thread has removed it
        }
        names << status.st_ino << ' ' << entry.path().native() << '\n';
        const std::tuple now{status.st_size, status.st_mtim.tv_sec, status.st_mtim.tv_nsec};
        if (std::exchange(known[status.st_ino], now) != now || entry.path() == synced)
        {
            // Closing the file drops the locks that SQLite has on it. No other process uses the store.
            std::ofstream(name + std::to_string(status.st_ino)) << std::ifstream(entry.path()).rdbuf();
        }
    }
    struct stat status = {};
    ::fstat(descriptor, &status);
    std::ofstream(name + "synced") << (S_ISDIR(status.st_mode) ? synced.native() : std::to_string(status.st_ino));
}

} // namespace

extern "C" int fsync(int descriptor)
{
    record(descriptor);
    return static_cast<int>(::syscall(SYS_fsync, descriptor));
}

extern "C" int fdatasync(int descriptor)
{
    record(descriptor);
    return static_cast<int>(::syscall(SYS_fdatasync, descriptor));
}
