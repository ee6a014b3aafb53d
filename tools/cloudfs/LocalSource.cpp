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
    m_status = statusOf(m_descriptor, m_path);
    if (S_ISDIR(m_status.st_mode))
    {
        ::close(m_descriptor);
        throw CommandError(m_path, "is a folder; use -r to upload it", fsp::ErrorCode::InvalidLocation);
    }
    if (S_ISREG(m_status.st_mode))
    {
        m_size = static_cast<std::uint64_t>(m_status.st_size);
        m_hasStatedSize = findStatedSize();
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

/// Whether the last byte can be read, or an empty file is empty.
bool LocalSource::findStatedSize() const noexcept
{
    char byte = 0;
    const auto last = static_cast<off_t>(*m_size > 0 ? *m_size - 1 : 0);
    return ::pread(m_descriptor, &byte, 1, last) == (*m_size > 0 ? 1 : 0);
}

void LocalSource::readAt(std::uint64_t offset, char* buffer, std::size_t size) const
{
    while (size > 0)
    {
        const ssize_t count = ::pread(m_descriptor, buffer, size, static_cast<off_t>(offset));
        if (count < 0 && errno == EINTR)
        {
            continue;
        }
        if (count < 0)
        {
            throw CommandError::fromErrno(m_path, errno);
        }
        if (count == 0)
        {
            throwTruncated();
        }
        buffer += count;
        offset += static_cast<std::uint64_t>(count);
        size -= static_cast<std::size_t>(count);
    }
}

void LocalSource::requireUnchanged() const
{
    const struct stat now = statusOf(m_descriptor, m_path);
    if (now.st_size < m_status.st_size)
    {
        throwTruncated();
    }
    if (now.st_size != m_status.st_size || now.st_mtim.tv_sec != m_status.st_mtim.tv_sec ||
        now.st_mtim.tv_nsec != m_status.st_mtim.tv_nsec)
    {
        throw CommandError(m_path, "was changed while being read", fsp::ErrorCode::Unknown);
    }
}

void LocalSource::throwTruncated() const
{
    throw CommandError(m_path, "was truncated while being read", fsp::ErrorCode::Unknown);
}

void LocalSource::requireNotTruncated() const
{
    // Files of /proc and /sys may report a size that they never deliver. They still report it now, and are complete.
    if (m_size && m_read < *m_size && static_cast<std::uint64_t>(statusOf(m_descriptor, m_path).st_size) < *m_size)
    {
        throwTruncated();
    }
}

} // namespace cloudfs
