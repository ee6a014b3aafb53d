#pragma once

#include <cstdint>
#include <filesystem>
#include <optional>
#include <utility>

namespace storage::clients::local
{

/// An open file or folder; the destructor closes it. Empty after a move.
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

// Thin wrappers of system calls. Next to a handle, a path is for error messages only. All that are not noexcept throw
// StoreError.

/// Create the folder and its missing parents, with access for this user only, and sync them.
void makeFolders(const std::filesystem::path& path);

FileHandle openFolder(const std::filesystem::path& path);

/// Create a file, with access for this user only, and open it for writing. An existing file is an error.
FileHandle createFile(const std::filesystem::path& path);

/// Open a regular file for reading; nullopt when there is none. Never waits, also if a FIFO is in its place.
std::optional<FileHandle> openFile(const std::filesystem::path& path);

/// Whether there is something that is no regular file: a FIFO, for example, takes what is written and never returns it.
bool isIrregular(const std::filesystem::path& path) noexcept;

/// Lock the file or folder against all other handles until this one is closed. Does not wait.
///
/// @return false: it is locked
bool tryLockFile(const FileHandle& file, const std::filesystem::path& path);

void syncFile(const FileHandle& file, const std::filesystem::path& path);
std::uint64_t fileSize(const FileHandle& file, const std::filesystem::path& path);

void writeFile(const FileHandle& file, const std::filesystem::path& path, const char* bytes, std::uint64_t size);

/// Let the disk begin to write these bytes, so that a later sync finds little to wait for. Promises nothing: only
/// syncFile() makes bytes durable and reports errors.
void startWriteBack(const FileHandle& file, std::uint64_t offset, std::uint64_t size) noexcept;

/// Read exactly `size` bytes from `offset` on. A file that ends earlier is an error.
void readFile(
    const FileHandle& file, const std::filesystem::path& path, char* target, std::uint64_t size, std::uint64_t offset);

/// Append `size` bytes from `offset` of another file. Where the file system can, blocks are shared instead of copied,
/// or the kernel copies the bytes; else they are read and written.
void copyFile(const FileHandle& from, const std::filesystem::path& fromPath, std::uint64_t offset, const FileHandle& to,
    const std::filesystem::path& toPath, std::uint64_t size);

/// A number that is not chosen again: random, 64 bits.
std::uint64_t randomNumber();

/// Remove the file. A missing file is not an error.
///
/// @return 0 or errno
int removeFile(const std::filesystem::path& path) noexcept;

} // namespace storage::clients::local
