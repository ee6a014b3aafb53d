#include <storage/cloudprovider/DiskBackedBufferFactory.hpp>

#include "DiskBackedBuffer.hpp"
#include "LogRecords.hpp"

namespace storage::cloudprovider
{

DiskBackedBufferFactory::DiskBackedBufferFactory() = default;

DiskBackedBufferFactory::~DiskBackedBufferFactory() = default;

BufferPtr DiskBackedBufferFactory::build(std::size_t size)
{
    logEntry(CallSite("virtual BufferPtr storage::cloudprovider::DiskBackedBufferFactory::build(size_t)",
                 "src/DiskBackedBufferFactory"),
        named("size", size));
    return std::make_unique<DiskBackedBuffer>(size);
}

} // namespace storage::cloudprovider
