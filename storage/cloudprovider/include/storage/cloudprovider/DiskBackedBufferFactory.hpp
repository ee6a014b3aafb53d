#pragma once

#include <storage/cloudprovider/Buffer.hpp>

namespace storage::cloudprovider
{

/// Keeps every buffer in a temporary file of its own that is mapped into memory while the buffer is open.
///
/// So any number of buffers costs disk space in the system's temporary directory (TMPDIR) and little memory. The files
/// are readable by their owner alone and are removed with their buffers. Stateless: any thread may call.
class CLOUDPROVIDER_EXPORT DiskBackedBufferFactory : public BufferFactory
{
public:
    DiskBackedBufferFactory();
    ~DiskBackedBufferFactory() override;

    /// Make a closed buffer of `size` bytes, all zero. A buffer of 0 bytes is legal.
    ///
    /// The file has its full length from the start, but takes space on the disk only as bytes are reserved.
    /// @throws UnknownErrorException when the temporary file cannot be made
    BufferPtr build(std::size_t size) override;
};

} // namespace storage::cloudprovider
