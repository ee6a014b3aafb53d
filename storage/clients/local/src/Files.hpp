#pragma once

#include <cstdint>
#include <filesystem>
#include <optional>
#include <utility>

namespace storage::clients::local
{

/// An open file or folder, closed when it goes. Empty after a move.
class FileHandle
{
public:
    FileHandle() = default;

    explicit FileHandle(int descriptor) noexcept
        : m_descriptor(descriptor)
    {
    }

    FileHandle(FileHandle&& other) noexcept
        : m_descriptor(std::exchange(other.m_descriptor, -1))
    {
    }

    FileHandle& operator=(FileHandle&& other) noexcept
    {
        std::swap(m_descriptor, other.m_descriptor);
        return *this;
    }

    ~FileHandle();

    int get() const noexcept { return m_descriptor; }

private:
    int m_descriptor = -1;
};

// Thin layers over the system's calls. Paths are there for the messages, too. All throw StoreError.

/// Make the folder and those above it that are missing, for this user alone, and sync them.
void makeFolders(const std::filesystem::path& path);

FileHandle openFolder(const std::filesystem::path& path);

/// Make a file that is not there yet, for this user alone, and open it for writing.
FileHandle createFile(const std::filesystem::path& path);

/// Open for reading; nothing when there is no such file.
std::optional<FileHandle> openFile(const std::filesystem::path& path);

/// Wait until nobody else holds the file or folder, and hold it until the handle goes.
void lockFile(const FileHandle& file, const std::filesystem::path& path);

/// Hold the file if nobody else does.
///
/// @return false: somebody does
bool tryLockFile(const FileHandle& file, const std::filesystem::path& path);

void syncFile(const FileHandle& file, const std::filesystem::path& path);
std::uint64_t fileSize(const FileHandle& file, const std::filesystem::path& path);

void writeFile(const FileHandle& file, const std::filesystem::path& path, const char* bytes, std::uint64_t size);

/// Read exactly `size` bytes from `offset` on. A file that ends earlier is a failure.
void readFile(
    const FileHandle& file, const std::filesystem::path& path, char* target, std::uint64_t size, std::uint64_t offset);

/// Append `size` bytes from `offset` of another file: without copying them where the disk can share blocks, else
/// inside the kernel, else by hand.
void copyFile(const FileHandle& from, const std::filesystem::path& fromPath, std::uint64_t offset, const FileHandle& to,
    const std::filesystem::path& toPath, std::uint64_t size);

/// Remove the file. One that is not there is no failure.
///
/// @return 0, else errno
int removeFile(const std::filesystem::path& path) noexcept;

} // namespace storage::clients::local
