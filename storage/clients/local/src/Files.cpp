#include "Files.hpp"

#include "StoreError.hpp"

#include <algorithm>
#include <cerrno>
#include <string>
#include <vector>

#include <fcntl.h>
#include <sys/file.h>
#include <sys/random.h>
#include <sys/stat.h>
#include <unistd.h>

namespace storage::clients::local
{

namespace
{

constexpr mode_t folderMode = 0700;
constexpr mode_t fileMode = 0600;
constexpr std::uint64_t copyBuffer = 256 * 1024; // bytes; a larger buffer is not faster

[[noreturn]] void fail(const char* doing, const std::filesystem::path& path)
{
    const int error = errno;
    throw systemError(std::string(doing) + " \"" + path.native() + '"', error);
}

// Repeats a call that a signal has interrupted.
template <typename Call>
auto retryInterrupted(Call call)
{
    auto result = call();
    while (result < 0 && errno == EINTR)
    {
        result = call();
    }
    return result;
}

// Whether copy_file_range() is not possible for two files: kernels and file systems report that differently.
bool lacksKernelCopy(int error)
{
    return error == EXDEV || error == ENOSYS || error == EOPNOTSUPP || error == EINVAL || error == EPERM;
}

} // namespace

FileHandle::~FileHandle()
{
    if (m_descriptor >= 0)
    {
        ::close(m_descriptor); // errors do not matter: bytes that must not be lost were synced
    }
}

void makeFolders(const std::filesystem::path& path)
{
    struct stat status = {};
    if (::stat(path.c_str(), &status) == 0)
    {
        if (!S_ISDIR(status.st_mode))
        {
            throw StoreError(StoreError::Kind::NotAStore, '"' + path.native() + "\" is not a directory");
        }
        return;
    }
    if (errno != ENOENT)
    {
        fail("reading", path);
    }
    const std::filesystem::path parent = path.has_parent_path() ? path.parent_path() : ".";
    if (parent != path)
    {
        makeFolders(parent);
    }
    if (::mkdir(path.c_str(), folderMode) != 0)
    {
        if (errno == EEXIST) // another process has created it
        {
            return;
        }
        fail("creating", path);
    }
    syncFile(openFolder(parent), parent);
}

FileHandle openFolder(const std::filesystem::path& path)
{
    FileHandle folder(retryInterrupted([&] { return ::open(path.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC); }));
    if (folder.get() < 0)
    {
        fail("opening", path);
    }
    return folder;
}

FileHandle createFile(const std::filesystem::path& path)
{
    FileHandle file(
        retryInterrupted([&] { return ::open(path.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, fileMode); }));
    if (file.get() < 0)
    {
        fail("creating", path);
    }
    return file;
}

std::optional<FileHandle> openFile(const std::filesystem::path& path)
{
    FileHandle file(
        retryInterrupted([&] { return ::open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK | O_NOFOLLOW); }));
    if (file.get() < 0 && errno == ENOENT)
    {
        return std::nullopt;
    }
    struct stat status = {};
    if (file.get() < 0 ? errno == ELOOP || errno == ENXIO
                       : ::fstat(file.get(), &status) == 0 && !S_ISREG(status.st_mode))
    {
        throw damage('"' + path.native() + "\" is not a regular file");
    }
    if (file.get() < 0)
    {
        fail("opening", path);
    }
    return file;
}

bool isIrregular(const std::filesystem::path& path) noexcept
{
    struct stat status = {};
    return ::lstat(path.c_str(), &status) == 0 && !S_ISREG(status.st_mode);
}

bool tryLockFile(const FileHandle& file, const std::filesystem::path& path)
{
    if (::flock(file.get(), LOCK_EX | LOCK_NB) == 0)
    {
        return true;
    }
    if (errno != EWOULDBLOCK)
    {
        fail("locking", path);
    }
    return false;
}

void syncFile(const FileHandle& file, const std::filesystem::path& path)
{
    if (retryInterrupted([&] { return ::fsync(file.get()); }) != 0)
    {
        fail("syncing", path);
    }
}

std::uint64_t fileSize(const FileHandle& file, const std::filesystem::path& path)
{
    struct stat status = {};
    if (::fstat(file.get(), &status) != 0)
    {
        fail("reading", path);
    }
    return static_cast<std::uint64_t>(status.st_size);
}

void writeFile(const FileHandle& file, const std::filesystem::path& path, const char* bytes, std::uint64_t size)
{
    while (size > 0)
    {
        const ssize_t written = retryInterrupted([&] { return ::write(file.get(), bytes, size); });
        if (written < 0)
        {
            fail("writing", path);
        }
        bytes += written;
        size -= static_cast<std::uint64_t>(written);
    }
}

void startWriteBack(const FileHandle& file, std::uint64_t offset, std::uint64_t size) noexcept
{
    // A file system that cannot do this writes the bytes when they are synced. An error stays to be reported then.
    ::sync_file_range(file.get(), static_cast<off_t>(offset), static_cast<off_t>(size), SYNC_FILE_RANGE_WRITE);
}

void readFile(
    const FileHandle& file, const std::filesystem::path& path, char* target, std::uint64_t size, std::uint64_t offset)
{
    while (size > 0)
    {
        const ssize_t read =
            retryInterrupted([&] { return ::pread(file.get(), target, size, static_cast<off_t>(offset)); });
        if (read < 0)
        {
            fail("reading", path);
        }
        if (read == 0)
        {
            throw damage('"' + path.native() + "\" ends early");
        }
        target += read;
        offset += static_cast<std::uint64_t>(read);
        size -= static_cast<std::uint64_t>(read);
    }
}

void copyFile(const FileHandle& from, const std::filesystem::path& fromPath, std::uint64_t offset, const FileHandle& to,
    const std::filesystem::path& toPath, std::uint64_t size)
{
    auto position = static_cast<off_t>(offset);
    const off_t end = position + static_cast<off_t>(size);
    while (position < end)
    {
        const auto rest = static_cast<std::size_t>(end - position);
        const ssize_t copied =
            retryInterrupted([&] { return ::copy_file_range(from.get(), &position, to.get(), nullptr, rest, 0); });
        if (copied < 0 && !lacksKernelCopy(errno))
        {
            fail("writing", toPath);
        }
        if (copied <= 0) // 0: some kernels return that for file systems on which they cannot copy
        {
            break;
        }
    }
    std::vector<char> buffer(std::min(copyBuffer, static_cast<std::uint64_t>(end - position)));
    while (position < end)
    {
        const std::uint64_t count = std::min(buffer.size(), static_cast<std::size_t>(end - position));
        readFile(from, fromPath, buffer.data(), count, static_cast<std::uint64_t>(position));
        writeFile(to, toPath, buffer.data(), count);
        position += static_cast<off_t>(count);
    }
}

std::uint64_t randomNumber()
{
    std::uint64_t number = 0;
    if (::getrandom(&number, sizeof(number), 0) != sizeof(number))
    {
        throw systemError("choosing a random number", errno);
    }
    return number;
}

int removeFile(const std::filesystem::path& path) noexcept
{
    return ::unlink(path.c_str()) == 0 || errno == ENOENT ? 0 : errno;
}

} // namespace storage::clients::local
