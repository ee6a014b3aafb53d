#pragma once

#include <fl/filesystem.hpp>

#include <cstddef>
#include <string>

namespace storage::cloudprovider::detail
{

/// A temporary file that exists as long as this object.
///
/// It is in the system's temporary directory, has mode 0600, and is sparse: it has its full length from the start but
/// occupies disk space only where it was written. Its name tells which process it belongs to, so that
/// removeTemporaryFilesOfDeadProcesses() finds it after a crash. Not thread-safe.
class DiskFile
{
public:
    /// Create a file of `size` bytes.
    /// @throws TemporaryFileException when it cannot be created or sized; no file remains
    explicit DiskFile(std::size_t size);
    DiskFile(const DiskFile&) = delete;
    DiskFile& operator=(const DiskFile&) = delete;

    /// Delete the file. A failure is logged.
    ~DiskFile();

    /// Set the file's length. A length of 0 becomes 1, because an empty file cannot be mapped.
    /// @throws TemporaryFileException
    void updateFileSize(std::size_t newSizeInBytes);

    /// Write zeros over bytes [first, last), which allocates disk space for them.
    /// @throws TemporaryFileException when the disk is full; space allocated before that stays allocated until
    /// release()
    void fillWithZeros(std::size_t first, std::size_t last);

    /// Free the disk space of bytes [first, last), if the file system supports holes. The bytes then read as zeros.
    void release(std::size_t first, std::size_t last) noexcept;

    /// Return the path in the form that system calls take.
    std::string accessPath() const;

private:
    explicit DiskFile(fl::filesystem::path path); // takes over a file
    std::string folder() const;

    const fl::filesystem::path m_path;
};

} // namespace storage::cloudprovider::detail
