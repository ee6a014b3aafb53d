#pragma once

#include <cstddef>
#include <string>

namespace storage::cloudprovider::detail
{

/// A file that is mapped into memory for reading and writing.
///
/// The file's descriptor is closed on exec, so that programs that the host starts do not keep deleted files alive. It
/// stays open as long as the mapping: on a network file system, only closing it tells whether all bytes were written.
/// Not thread-safe.
class MappedFile
{
public:
    MappedFile() = default;
    MappedFile(const MappedFile&) = delete;
    MappedFile& operator=(const MappedFile&) = delete;

    /// Close the mapping. A failure is logged.
    ~MappedFile();

    /// Map the first `size` bytes of a file. Call while closed.
    /// @throws TemporaryFileException
    void open(const std::string& path, std::size_t size);

    /// Unmap the file. No effect while closed. The mapping is closed even if this fails.
    /// @throws TemporaryFileException when bytes that were written through the mapping may be lost
    void close();

    bool isOpen() const { return m_data != nullptr; }

    /// Return the address of the first byte, or null while closed.
    char* data() const { return m_data; }

private:
    char* m_data = nullptr;
    std::size_t m_size = 0;
    int m_descriptor = -1;
};

} // namespace storage::cloudprovider::detail
