#pragma once

#include "InternalExport.hpp"

#include <fl/filesystem.hpp>

#include <cstddef>

namespace storage::cloudprovider::detail
{

/// A temporary file that lives as long as this object.
///
/// Lies in the system's temporary directory, is readable by its owner alone, and begins as a hole: it has its length at
/// once but takes space only where it is written. Not thread-safe.
class CLOUDPROVIDER_INTERNAL DiskFile
{
public:
    /// Create a file of `size` bytes.
    /// @throws UnknownErrorException when it cannot be created or sized
    explicit DiskFile(std::size_t size);
    DiskFile(const DiskFile&) = delete;
    DiskFile& operator=(const DiskFile&) = delete;

    /// Delete the file. A failure is logged.
    ~DiskFile();

    /// Set the file's length; 0 is raised to 1, so that there is always something to map.
    /// @throws UnknownErrorException
    void updateFileSize(std::size_t newSizeInBytes);

    /// Write zeros over bytes [first, last), so that the disk has room for them.
    /// @throws UnknownErrorException when it has not; what was written by then takes room until release()
    void fillWithZeros(std::size_t first, std::size_t last);

    /// Give the room of bytes [first, last) back, as far as the disk can do that. They read as zeros.
    void release(std::size_t first, std::size_t last) noexcept;

    /// Return the path in the form that system calls take.
    std::string accessPath() const;

private:
    DiskFile(); // creates the file, empty

    fl::filesystem::basic_path<char, char16_t> m_path; // empty if no name could be made
};

} // namespace storage::cloudprovider::detail
