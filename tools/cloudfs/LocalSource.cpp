#include "LocalSource.hpp"

#include "CommandError.hpp"
#include "Interrupt.hpp"

#include <cerrno>
#include <fcntl.h>
#include <poll.h>
#include <sys/stat.h>
#include <sys/types.h>
#include <unistd.h>

namespace cloudfs
{

namespace
{

int openForReading(const std::string& path)
{
    while (true)
    {
        const int descriptor = ::open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NOCTTY);
        if (descriptor >= 0)
        {
            return descriptor;
        }
        if (errno != EINTR)
        {
            throw CommandError::fromErrno(path, errno);
        }
        interrupt::throwIfPending();
    }
}

struct stat statusOf(int descriptor, const std::string& path)
{
    struct stat status = {};
    if (::fstat(descriptor, &status) != 0)
    {
        throw CommandError::fromErrno(path, errno);
    }
    return status;
}

} // namespace

LocalSource::LocalSource(const std::string& path)
    : m_path(path)
    , m_descriptor(openForReading(path))
{
    const struct stat status = statusOf(m_descriptor, m_path);
    if (S_ISDIR(status.st_mode))
    {
        ::close(m_descriptor);
        throw CommandError(m_path, "is a folder; use -r to upload it", fsp::ErrorCode::InvalidLocation);
    }
    if (S_ISREG(status.st_mode))
    {
        m_size = static_cast<std::uint64_t>(status.st_size);
        ::posix_fadvise(m_descriptor, 0, 0, POSIX_FADV_SEQUENTIAL); // only a hint: a failure does not matter
    }
}

LocalSource::LocalSource()
    : m_path("standard input")
    , m_descriptor(STDIN_FILENO)
{
}

LocalSource::~LocalSource()
{
    if (m_descriptor != STDIN_FILENO)
    {
        ::close(m_descriptor);
    }
}

std::size_t LocalSource::read(char* buffer, std::size_t size)
{
    while (true)
    {
        interrupt::waitUntilReady(m_descriptor, POLLIN);
        const ssize_t count = ::read(m_descriptor, buffer, size);
        if (count > 0)
        {
            m_read += static_cast<std::uint64_t>(count);
            return static_cast<std::size_t>(count);
        }
        if (count == 0)
        {
            requireNotTruncated();
            return 0;
        }
        if (errno != EINTR && errno != EAGAIN)
        {
            throw CommandError::fromErrno(m_path, errno);
        }
    }
}

bool LocalSource::isTerminal() const noexcept
{
    return ::isatty(m_descriptor) == 1;
}

void LocalSource::requireNotTruncated() const
{
    // Files of /proc and /sys may report a size that they never deliver. They still report it now, and are complete.
    if (m_size && m_read < *m_size && static_cast<std::uint64_t>(statusOf(m_descriptor, m_path).st_size) < *m_size)
    {
        throw CommandError(m_path, "was truncated while being read", fsp::ErrorCode::Unknown);
    }
}

} // namespace cloudfs
