#pragma once

#include <fl/filesystem.hpp>

#include <cstddef>

namespace storage::cloudprovider::detail
{

/// A temporary file that exists as long as this object.
///
/// It is in the system's temporary directory, has mode 0600, and is sparse: it has its full length from the start but
/// occupies disk space only where it was written. Not thread-safe.
class DiskFile
{
public:
    /// Create a file of `size` bytes.
    /// @throws UnknownErrorException when it cannot be created or sized
    explicit DiskFile(std::size_t size);
    DiskFile(const DiskFile&) = delete;
    DiskFile& operator=(const DiskFile&) = delete;

    /// Delete the file. A failure is logged.
    ~DiskFile();

    /// Set the file's length. A length of 0 becomes 1, because an empty file cannot be mapped.
    /// @throws UnknownErrorException
    void updateFileSize(std::size_t newSizeInBytes);

    /// Write zeros over bytes [first, last), which allocates disk space for them.
    /// @throws UnknownErrorException when the disk is full; space allocated before that stays allocated until release()
    void fillWithZeros(std::size_t first, std::size_t last);

    /// Free the disk space of bytes [first, last), if the file system supports holes. The bytes then read as zeros.
    void release(std::size_t first, std::size_t last) noexcept;

    /// Return the path in the form that system calls take.
    std::string accessPath() const;

private:
    DiskFile(); // creates an empty file

    fl::filesystem::basic_path<char, char16_t> m_path; // empty if no name could be generated
};

} // namespace storage::cloudprovider::detail
