#pragma once

#include <storage/cloudprovider/Export.hpp>

#include <cstddef>
#include <memory>

namespace storage::cloudprovider
{

/// A fixed-length block of bytes that is addressable only while the buffer is open.
///
/// No operation locks: the owner serialises open(), close() and reserve(). While the buffer is open, several threads
/// may read and write its bytes.
class CLOUDPROVIDER_EXPORT Buffer
{
public:
    Buffer() = default;
    Buffer(const Buffer&) = delete;
    Buffer& operator=(const Buffer&) = delete;

    /// Return the length in bytes, fixed at construction.
    virtual std::size_t size() const = 0;

    /// Make the bytes addressable.
    virtual void open() = 0;

    /// Return whether the bytes are addressable.
    virtual bool isOpen() const = 0;

    /// Return the address of the first byte, or null while the buffer is closed. Valid until close().
    virtual const char* data() const = 0;
    virtual char* data() = 0;

    /// Make the bytes unaddressable. Their values are kept: the next open() makes the same bytes addressable.
    ///
    /// If this throws, the buffer is closed nevertheless. If its bytes may be lost, the next open() throws, too.
    virtual void close() = 0;

    /// Free the bytes. Never throws.
    virtual ~Buffer() = default;

    /// Allocate storage for the first `bytes` bytes. Bytes that were never written read as zeros.
    ///
    /// Touching mapped memory that has no storage behind it kills the process when the disk is full. Callers reserve
    /// bytes before they touch them and get an exception instead. The buffer may be open or closed.
    /// @param bytes  at most size(); the reservation never shrinks, so a smaller number than before has no effect
    /// @throws UnknownErrorException when the disk is full; bytes that were reserved before are unaffected
    virtual void reserve(std::size_t /*bytes*/) {}
};

using BufferPtr = std::unique_ptr<Buffer>;
using BufferSharedPtr = std::shared_ptr<Buffer>;

/// Builds the local buffers of one open file.
class CLOUDPROVIDER_EXPORT BufferFactory
{
public:
    BufferFactory() = default;
    BufferFactory(const BufferFactory&) = delete;
    BufferFactory& operator=(const BufferFactory&) = delete;

    /// Build a closed buffer of `size` bytes, all zero. Any thread may call.
    virtual BufferPtr build(std::size_t size) = 0;

    virtual ~BufferFactory() = default;
};

} // namespace storage::cloudprovider
