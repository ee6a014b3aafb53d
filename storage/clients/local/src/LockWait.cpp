#include "LockWait.hpp"

#include "StoreError.hpp"

#include <fmt/format.h>

#include <algorithm>
#include <fstream>
#include <sstream>
#include <thread>

#include <sys/stat.h>
#include <sys/sysmacros.h>
#include <unistd.h>

namespace storage::clients::local
{

using namespace std::chrono_literals;

LockWait::LockWait(const LockLimits& limits)
    : m_limits(&limits)
    , m_begin(std::chrono::steady_clock::now())
{
}

bool LockWait::pause()
{
    // An interrupted process still waits long enough for the turn of a living writer, so that it can abort its uploads.
    constexpr std::chrono::milliseconds timeoutWhenInterrupted = 1s;
    const auto timeout = isInterrupted() ? std::min(timeoutWhenInterrupted, m_limits->timeout) : m_limits->timeout;
    if (std::chrono::steady_clock::now() - m_begin >= timeout)
    {
        return false;
    }
    std::this_thread::sleep_for(1ms); // about as long as a commit takes
    return true;
}

void LockWait::fail(const std::string& what, std::optional<pid_t> holder) const
{
    const std::chrono::duration<double> waited = std::chrono::steady_clock::now() - m_begin;
    throw StoreError(StoreError::Kind::Locked, fmt::format("{} keeps {} locked; gave up after {:.1f} s{}",
                                                   holder ? fmt::format("process {}", *holder) : "another client", what,
                                                   waited.count(), isInterrupted() ? " because of an interrupt" : ""));
}

std::optional<pid_t> findLockHolder(const std::filesystem::path& file, std::int64_t byte, bool readers)
{
    struct stat status = {};
    if (::stat(file.c_str(), &status) != 0)
    {
        return std::nullopt;
    }
    // F_GETLK would need a handle of the file, and closing that would drop the locks that SQLite has in this process.
    // Some file systems show another device there than stat() does. So a file of the same number counts if there is no
    // better one.
    const std::string inode = ':' + std::to_string(status.st_ino);
    const std::string place = fmt::format("{:02x}:{:02x}", major(status.st_dev), minor(status.st_dev)) + inode;
    std::optional<pid_t> holder;
    std::ifstream locks("/proc/locks");
    for (std::string line; std::getline(locks, line);)
    {
        // 1: POSIX ADVISORY WRITE 4711 fe:00:131 120 120
        std::istringstream fields(line);
        std::string number;
        std::string type;
        std::string mode;
        std::string access;
        std::string found;
        pid_t process = 0;
        std::int64_t first = 0;
        std::string last;
        fields >> number >> type >> mode >> access >> process >> found >> first >> last;
        const bool isInTheWay = access == "WRITE" || (readers && process != ::getpid());
        if (fields && isInTheWay && process > 0 && found.ends_with(inode) && first <= byte &&
            (last == "EOF" || byte <= std::strtoll(last.c_str(), nullptr, 10)))
        {
            holder = process;
            if (found == place)
            {
                break;
            }
        }
    }
    return holder;
}

} // namespace storage::clients::local
