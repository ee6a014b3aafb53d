#pragma once

#include "DiskFile.hpp"

#include <storage/cloudprovider/Buffer.hpp>

#include <boost/iostreams/device/mapped_file.hpp>

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
    /// @throws std::exception of the mapping library
    void open() override;
    bool isOpen() const override;
    const char* data() const override;
    char* data() override;
    void close() override;
    void reserve(std::size_t bytes) override;

private:
    void reserveUpTo(std::size_t end);

    boost::iostreams::mapped_file m_mapping;
    const std::size_t m_size;
    std::unique_ptr<detail::DiskFile> m_file;
    std::size_t m_reserved = 0; // this many bytes from the start have storage
};

} // namespace storage::cloudprovider
