#pragma once

#include "DiskFile.hpp"
#include "MappedFile.hpp"

#include <storage/cloudprovider/Buffer.hpp>

#include <memory>

namespace storage::cloudprovider
{

/// A buffer whose bytes are in a temporary file, which is mapped into memory while the buffer is open.
class DiskBackedBuffer : public Buffer
{
public:
    /// Create the temporary file without mapping it.
    /// @throws UnknownErrorException
    explicit DiskBackedBuffer(std::size_t size);
    ~DiskBackedBuffer() override;

    std::size_t size() const override;

    /// Map the whole file. Touching a byte that is not reserved kills the process when the disk is full.
    /// @throws TemporaryFileException when the file cannot be mapped; after a failed close() always, because the bytes
    ///         may be lost
    void open() override;
    bool isOpen() const override;
    const char* data() const override;
    char* data() override;

    /// Unmap the file.
    /// @throws TemporaryFileException when bytes may be lost; the buffer is closed nevertheless
    void close() override;
    void reserve(std::size_t bytes) override;

private:
    void reserveUpTo(std::size_t end);

    const std::size_t m_size;
    const std::unique_ptr<detail::DiskFile> m_file;
    detail::MappedFile m_mapping; // destroyed before the file is deleted
    bool m_isDamaged = false;     // bytes may be lost
    std::size_t m_reserved = 0;   // this many bytes from the start have storage
};

} // namespace storage::cloudprovider
