#include "LocalTarget.hpp"

#include "CommandError.hpp"
#include "Diagnostics.hpp"
#include "Interrupt.hpp"

#include <storage/cloudprovider/TemporaryFiles.hpp>

#include <fmt/format.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <fcntl.h>
#include <memory>
#include <sys/stat.h>
#include <sys/types.h>
#include <system_error>
#include <unistd.h>

namespace cloudfs
{

namespace
{

constexpr auto temporaryName = ".cloudfs";

constexpr std::size_t blockSize = 4096; // bytes; most file systems have holes of such blocks

/// Resolve all symbolic links of a path. A path that cannot be resolved, such as that of a new file, stays unchanged.
std::string resolveLinks(const std::string& path)
{
    const std::unique_ptr<char, decltype(&std::free)> real(::realpath(path.c_str(), nullptr), &std::free);
    return real ? std::string(real.get()) : path;
}

/// Return the folder of a file: "/" for "/a", "." for "a".
std::string folderOf(const std::string& path)
{
    const std::size_t end = path.rfind('/');
    return end == std::string::npos ? "." : path.substr(0, std::max<std::size_t>(end, 1));
}

/// Return a path that linkat() takes for an open file, because it has no name.
std::string pathOf(int descriptor)
{
    return fmt::format("/proc/self/fd/{}", descriptor);
}

/// Whether bytes need not be written: they are zeros, and the file has a hole there or ends before. Where it has data,
/// these were wrong bytes.
bool isHole(int descriptor, std::uint64_t offset, std::string_view bytes)
{
    if (bytes.find_first_not_of('\0') != std::string_view::npos)
    {
        return false;
    }
    const off_t data = ::lseek(descriptor, static_cast<off_t>(offset), SEEK_DATA);
    return data < 0 ? errno == ENXIO : static_cast<std::uint64_t>(data) >= offset + bytes.size();
}

} // namespace

LocalTarget::LocalTarget(const std::string& path, bool replace, Destination destination)
    : m_name(path)
    , m_replace(replace)
    , m_path(destination == Destination::NamedByUser ? resolveLinks(path) : path)
    , m_folder(folderOf(m_path))
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
    // Only the system can follow some links, such as /dev/stdout if it is a pipe.
    const bool isOpenLink =
        destination == Destination::NamedByUser && S_ISLNK(status.st_mode) && ::access(m_path.c_str(), F_OK) == 0;
    if (exists && !S_ISREG(status.st_mode) && (!S_ISLNK(status.st_mode) || isOpenLink))
    {
        if (destination == Destination::InsideTree)
        {
            throw CommandError(m_name, "already exists and is not a regular file", fsp::ErrorCode::AlreadyExists);
        }
        m_descriptor = ::open(m_path.c_str(), O_WRONLY | O_CLOEXEC | O_NOCTTY);
        if (m_descriptor >= 0)
        {
            m_stream.emplace(m_descriptor);
        }
    }
    else if (exists && !m_replace)
    {
        throw CommandError(m_name, "already exists; use -f to replace it", fsp::ErrorCode::AlreadyExists);
    }
    else
    {
        if (destination == Destination::NamedByUser)
        {
            removeLeftovers(m_folder);
        }
        createTemporary();
    }
    if (m_descriptor < 0)
    {
        throw CommandError::fromErrno(m_name, errno);
    }
}

void LocalTarget::removeLeftovers(const std::string& folder)
{
    storage::cloudprovider::removeTemporaryFilesOfDeadProcesses(folder, temporaryName);
}

void LocalTarget::createTemporary()
{
    m_descriptor = ::open(m_folder.c_str(), O_TMPFILE | O_WRONLY | O_CLOEXEC, 0666);
    if (m_descriptor >= 0)
    {
        m_isUnnamed = ::access(pathOf(m_descriptor).c_str(), F_OK) == 0;
        if (m_isUnnamed)
        {
            return;
        }
        ::close(m_descriptor); // without /proc, it could never get a name
    }
    makeTemporaryName(
        [this](const char* name)
        {
            m_descriptor = ::open(name, O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, 0666);
            return m_descriptor >= 0;
        });
}

bool LocalTarget::makeTemporaryName(const std::function<bool(const char* name)>& make)
{
    static std::atomic<unsigned> counter{0};
    do
    {
        m_temporary =
            fmt::format("{}/{}{}", m_folder, storage::cloudprovider::temporaryFilePrefix(temporaryName), counter++);
        if (make(m_temporary.c_str()))
        {
            return true;
        }
    } while (errno == EEXIST);
    m_temporary.clear();
    return false;
}

LocalTarget::~LocalTarget()
{
    if (m_descriptor >= 0)
    {
        ::close(m_descriptor);
    }
    if (!m_temporary.empty() && ::unlink(m_temporary.c_str()) != 0 && errno != ENOENT)
    {
        diagnostics::printLine(CommandError::fromErrno(m_temporary, errno).what());
    }
}

void LocalTarget::writeAt(std::uint64_t offset, std::string_view bytes)
{
    interrupt::throwIfPending();
    const std::uint64_t end = offset + bytes.size();
    for (std::uint64_t size = m_size; size < end && !m_size.compare_exchange_weak(size, end);)
    {
    }
    std::size_t begin = 0; // of what is not written yet
    for (std::size_t at = 0, next = 0; at < bytes.size(); at = next)
    {
        next = std::min<std::size_t>(bytes.size(), at + blockSize - (offset + at) % blockSize);
        if (isHole(m_descriptor, offset + at, bytes.substr(at, next - at)))
        {
            writeData(offset + begin, bytes.substr(begin, at - begin));
            begin = next;
        }
    }
    writeData(offset + begin, bytes.substr(begin));
}

void LocalTarget::writeData(std::uint64_t offset, std::string_view bytes)
{
    const std::lock_guard lock(m_writing);
    while (!bytes.empty())
    {
        const ssize_t written = ::pwrite(m_descriptor, bytes.data(), bytes.size(), static_cast<off_t>(offset));
        if (written < 0 && errno != EINTR)
        {
            throw CommandError::fromErrno(m_name, errno);
        }
        bytes.remove_prefix(static_cast<std::size_t>(std::max<ssize_t>(written, 0)));
        offset += static_cast<std::uint64_t>(std::max<ssize_t>(written, 0));
    }
}

void LocalTarget::write(const char* data, std::size_t size)
{
    if (isRegularFile())
    {
        writeAt(m_size, {data, size});
        return;
    }
    if (const std::error_code error = m_stream->write({data, size}))
    {
        throw CommandError::fromErrno(m_name, error.value());
    }
}

void LocalTarget::commit()
{
    if (isRegularFile() && ::ftruncate(m_descriptor, static_cast<off_t>(m_size.load())) != 0)
    {
        throw CommandError::fromErrno(m_name, errno);
    }
    // Some file systems report a full disk only here. An unnamed file would be lost if its last descriptor was closed.
    const int copy = ::fcntl(m_descriptor, F_DUPFD_CLOEXEC, 0);
    if (copy < 0 || ::close(copy) != 0 || !makeVisible())
    {
        throw CommandError::fromErrno(m_name, errno);
    }
    m_temporary.clear();
}

bool LocalTarget::makeVisible()
{
    const auto link = [this](const char* name)
    { return ::linkat(AT_FDCWD, pathOf(m_descriptor).c_str(), AT_FDCWD, name, AT_SYMLINK_FOLLOW) == 0; };
    if (m_isUnnamed && !m_replace)
    {
        return link(m_path.c_str());
    }
    if (m_isUnnamed && !makeTemporaryName(link))
    {
        return false;
    }
    if (!isRegularFile())
    {
        return true;
    }
    const char* from = m_temporary.c_str();
    const char* to = m_path.c_str();
    const unsigned flags = m_replace ? 0U : static_cast<unsigned>(RENAME_NOREPLACE);
    if (::renameat2(AT_FDCWD, from, AT_FDCWD, to, flags) == 0)
    {
        return true;
    }
    if (errno != EINVAL)
    {
        return false;
    }
    // This file system cannot rename without replacing. Checking first leaves a short race.
    errno = EEXIST;
    return ::access(to, F_OK) != 0 && std::rename(from, to) == 0;
}

} // namespace cloudfs
