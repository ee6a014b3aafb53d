#include "LocalTarget.hpp"

#include "CommandError.hpp"
#include "Diagnostics.hpp"
#include "Interrupt.hpp"

#include <fmt/format.h>

#include <atomic>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <fcntl.h>
#include <memory>
#include <poll.h>
#include <sys/stat.h>
#include <sys/types.h>
#include <unistd.h>

namespace cloudfs
{

namespace
{

/// Resolve all symbolic links of a path. A path that cannot be resolved, such as that of a new file, stays unchanged.
std::string resolveLinks(const std::string& path)
{
    const std::unique_ptr<char, decltype(&std::free)> real(::realpath(path.c_str(), nullptr), &std::free);
    return real ? std::string(real.get()) : path;
}

} // namespace

LocalTarget::LocalTarget(const std::string& path, bool replace, Destination destination)
    : m_name(path)
    , m_replace(replace)
    , m_path(destination == Destination::NamedByUser ? resolveLinks(path) : path)
{
    struct stat status = {};
    const bool exists = ::lstat(m_path.c_str(), &status) == 0;
    if (!exists && errno != ENOENT)
    {
        throw CommandError::fromErrno(m_name, errno);
    }
    if (exists && S_ISDIR(status.st_mode))
    {
        throw CommandError(m_name, "is a folder", fsp::ErrorCode::AlreadyExists);
    }
    if (exists && !S_ISREG(status.st_mode) && !S_ISLNK(status.st_mode))
    {
        if (destination == Destination::InsideTree)
        {
            throw CommandError(m_name, "already exists and is not a regular file", fsp::ErrorCode::AlreadyExists);
        }
        m_descriptor = ::open(m_path.c_str(), O_WRONLY | O_CLOEXEC | O_NOCTTY);
    }
    else if (exists && !m_replace)
    {
        throw CommandError(m_name, "already exists; use -f to replace it", fsp::ErrorCode::AlreadyExists);
    }
    else
    {
        createTemporary();
    }
    if (m_descriptor < 0)
    {
        throw CommandError::fromErrno(m_name, errno);
    }
}

void LocalTarget::createTemporary()
{
    // In the folder of the target, so that commit() can rename it.
    static std::atomic<unsigned> counter{0};
    const std::string folder = m_path.substr(0, m_path.rfind('/') + 1);
    do
    {
        m_temporary = fmt::format("{}.cloudfs-{}-{}", folder, ::getpid(), counter++);
        m_descriptor = ::open(m_temporary.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, 0666);
    } while (m_descriptor < 0 && errno == EEXIST);
    if (m_descriptor < 0)
    {
        m_temporary.clear();
    }
}

LocalTarget::~LocalTarget()
{
    if (m_descriptor >= 0)
    {
        ::close(m_descriptor);
    }
    if (!m_temporary.empty() && ::unlink(m_temporary.c_str()) != 0)
    {
        diagnostics::printLine(CommandError::fromErrno(m_temporary, errno).what());
    }
}

void LocalTarget::write(const char* data, std::size_t size)
{
    while (size > 0)
    {
        interrupt::waitUntilReady(m_descriptor, POLLOUT);
        const ssize_t written = ::write(m_descriptor, data, size);
        if (written < 0)
        {
            if (errno == EINTR || errno == EAGAIN)
            {
                continue;
            }
            throw CommandError::fromErrno(m_name, errno);
        }
        data += written;
        size -= static_cast<std::size_t>(written);
    }
}

void LocalTarget::commit()
{
    const int descriptor = m_descriptor;
    m_descriptor = -1;
    if (::close(descriptor) != 0) // some file systems report a full disk only here
    {
        throw CommandError::fromErrno(m_name, errno);
    }
    if (m_temporary.empty())
    {
        return;
    }
    const char* from = m_temporary.c_str();
    const char* to = m_path.c_str();
    const unsigned flags = m_replace ? 0U : static_cast<unsigned>(RENAME_NOREPLACE);
    int failed = ::renameat2(AT_FDCWD, from, AT_FDCWD, to, flags);
    if (failed != 0 && errno == EINVAL)
    {
        // This file system cannot rename without replacing. Checking first leaves a short race.
        errno = EEXIST;
        failed = ::access(to, F_OK) == 0 ? -1 : std::rename(from, to);
    }
    if (failed != 0)
    {
        throw CommandError::fromErrno(m_name, errno);
    }
    m_temporary.clear();
}

} // namespace cloudfs
