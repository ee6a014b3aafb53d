#include "LocalFile.hpp"

#include <algorithm>
#include <cerrno>
#include <fcntl.h>
#include <sys/stat.h>
#include <system_error>
#include <unistd.h>

namespace storage::mount
{

namespace
{

[[noreturn]] void throwErrno(const char* what)
{
    throw std::system_error(errno, std::generic_category(), what);
}

} // namespace

LocalFile::LocalFile(const std::filesystem::path& path, Mode mode)
    : m_descriptor(
          ::open(path.c_str(), O_RDWR | O_NOFOLLOW | O_CLOEXEC | (mode == Mode::Create ? O_CREAT | O_TRUNC : 0), 0600))
{
    if (m_descriptor < 0)
    {
        throwErrno("opening a file of the cache");
    }
}

LocalFile::~LocalFile()
{
    ::close(m_descriptor);
}

void LocalFile::read(std::uint64_t offset, char* target, std::size_t size) const
{
    while (size > 0)
    {
        const ssize_t count = ::pread(m_descriptor, target, size, static_cast<off_t>(offset));
        if (count < 0 && errno != EINTR)
        {
            throwErrno("reading a file of the cache");
        }
        if (count == 0)
        {
            std::fill_n(target, size, '\0');
            return;
        }
        const std::size_t done = static_cast<std::size_t>(std::max<ssize_t>(count, 0));
        target += done;
        offset += done;
        size -= done;
    }
}

void LocalFile::write(std::uint64_t offset, const char* bytes, std::size_t size)
{
    while (size > 0)
    {
        const ssize_t count = ::pwrite(m_descriptor, bytes, size, static_cast<off_t>(offset));
        if (count < 0 && errno != EINTR)
        {
            throwErrno("writing a file of the cache");
        }
        const std::size_t done = static_cast<std::size_t>(std::max<ssize_t>(count, 0));
        bytes += done;
        offset += done;
        size -= done;
    }
}

void LocalFile::resize(std::uint64_t size)
{
    if (::ftruncate(m_descriptor, static_cast<off_t>(size)) != 0)
    {
        throwErrno("resizing a file of the cache");
    }
}

std::uint64_t LocalFile::size() const
{
    struct stat status = {};
    if (::fstat(m_descriptor, &status) != 0)
    {
        throwErrno("looking up a file of the cache");
    }
    return static_cast<std::uint64_t>(status.st_size);
}

} // namespace storage::mount
