#pragma once

#include <storage/cloudprovider/Export.hpp>

#include <cstddef>
#include <memory>

namespace storage::cloudprovider
{

/// A run of bytes of fixed length that can be made addressable and be put away again.
///
/// No operation locks: the owner serialises open(), close() and reserve(). The bytes themselves may be read and written
/// by several threads while the buffer is open.
class CLOUDPROVIDER_EXPORT Buffer
{
public:
    Buffer() = default;
    Buffer(const Buffer&) = delete;
    Buffer& operator=(const Buffer&) = delete;

    /// Return the length in bytes that the buffer was made with.
    virtual std::size_t size() const = 0;

    /// Make the bytes addressable.
    virtual void open() = 0;

    /// Tell whether the bytes are addressable.
    virtual bool isOpen() const = 0;

    /// Return the address of the first byte, null while the buffer is closed. Valid until close().
    virtual const char* data() const = 0;
    virtual char* data() = 0;

    /// Make the bytes unaddressable. They are kept: the next open() shows them again.
    virtual void close() = 0;

    /// Free the bytes. Never throws.
    virtual ~Buffer() = default;

    /// Make sure that the first `bytes` bytes have storage behind them. Bytes never written read as zeros.
    ///
    /// Memory that is mapped from a file without storage kills the process when the disk is full; whoever is going to
    /// touch bytes reserves them first and gets an exception instead. Open or closed makes no difference.
    /// @param bytes  at most size(); what is reserved stays so, a smaller number changes nothing
    /// @throws UnknownErrorException when there is no room; the bytes reserved before are untouched
    virtual void reserve(std::size_t /*bytes*/) {}
};

using BufferPtr = std::unique_ptr<Buffer>;
using BufferSharedPtr = std::shared_ptr<Buffer>;

/// Makes the local buffers of one open file.
class CLOUDPROVIDER_EXPORT BufferFactory
{
public:
    BufferFactory() = default;
    BufferFactory(const BufferFactory&) = delete;
    BufferFactory& operator=(const BufferFactory&) = delete;

    /// Make a closed buffer of `size` bytes, all zero. Any thread may call.
    virtual BufferPtr build(std::size_t size) = 0;

    virtual ~BufferFactory() = default;
};

} // namespace storage::cloudprovider
