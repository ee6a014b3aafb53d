#pragma once

#include <storage/cloudprovider/Buffer.hpp>

namespace storage::cloudprovider
{

/// Builds buffers that are temporary files, each mapped into memory while its buffer is open.
///
/// Buffers cost disk space in the system's temporary directory (TMPDIR) and little memory. The files have mode 0600,
/// are closed on exec, and are deleted with their buffers. TemporaryFiles.hpp removes those of a process that was
/// killed. The factory is stateless: any thread may call.
class CLOUDPROVIDER_EXPORT DiskBackedBufferFactory : public BufferFactory
{
public:
    DiskBackedBufferFactory();
    ~DiskBackedBufferFactory() override;

    /// Build a closed buffer of `size` bytes, all zero. A size of 0 is valid.
    ///
    /// The file has its full length from the start, but occupies disk space only for bytes that are reserved.
    /// @throws UnknownErrorException when the temporary file cannot be created; the detail says why. If its directory
    ///         is full, open files free their cached parts and try once more.
    BufferPtr build(std::size_t size) override;
};

} // namespace storage::cloudprovider
