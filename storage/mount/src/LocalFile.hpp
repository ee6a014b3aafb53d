#pragma once

#include <cstddef>
#include <cstdint>
#include <filesystem>

namespace storage::mount
{

/// A sparse file of this machine, with mode 0600. Any thread may call any operation; what overlaps has no order.
///
/// @throws std::system_error for every failure
class LocalFile
{
public:
    enum class Mode
    {
        Create, ///< an empty file, in place of one that exists
        Open    ///< a file that exists
    };

    LocalFile(const std::filesystem::path& path, Mode mode);

    LocalFile(const LocalFile&) = delete;
    LocalFile& operator=(const LocalFile&) = delete;
    ~LocalFile();

    /// Read bytes [offset, offset + size). What is beyond the end reads as zeros.
    void read(std::uint64_t offset, char* target, std::size_t size) const;

    /// Write bytes. If that fails, any of them may have been written.
    void write(std::uint64_t offset, const char* bytes, std::size_t size);

    void resize(std::uint64_t size);
    std::uint64_t size() const;

private:
    const int m_descriptor;
};

} // namespace storage::mount
