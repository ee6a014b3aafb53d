#include "DiskBackedBuffer.hpp"

#include "LogRecords.hpp"

#include <algorithm>

namespace storage::cloudprovider
{

DiskBackedBuffer::DiskBackedBuffer(std::size_t size)
    : m_size(size)
    , m_file(std::make_unique<detail::DiskFile>(size))
{
}

DiskBackedBuffer::~DiskBackedBuffer()
{
    try
    {
        m_mapping.close(); // before the file goes, and harmless when closed
    }
    catch (...)
    {
        logCaughtException();
    }
}

std::size_t DiskBackedBuffer::size() const
{
    return m_size;
}

void DiskBackedBuffer::open()
{
    // The file of an empty buffer has one byte, and mappings have at least one.
    m_mapping.open(m_file->accessPath(),
        std::ios_base::openmode(std::ios_base::in | std::ios_base::out | std::ios_base::binary),
        std::max<std::size_t>(m_size, 1), 0);
}

bool DiskBackedBuffer::isOpen() const
{
    return m_mapping.is_open();
}

const char* DiskBackedBuffer::data() const
{
    return m_mapping.is_open() ? m_mapping.data() : nullptr;
}

char* DiskBackedBuffer::data()
{
    return m_mapping.is_open() ? m_mapping.data() : nullptr;
}

void DiskBackedBuffer::close()
{
    m_mapping.close();
}

void DiskBackedBuffer::reserve(std::size_t bytes)
{
    if (bytes <= m_reserved)
    {
        return;
    }
    // Whole pages, and twice what there was: a part that grows write by write is backed in a few steps, while a small
    // file pays for its own pages alone.
    constexpr std::size_t page = 4096;
    const std::size_t wholePages = (bytes + page - 1) / page * page;
    const std::size_t target = std::min(std::max(wholePages, 2 * m_reserved), m_size);
    m_file->fillWithZeros(m_reserved, target);
    m_reserved = target;
}

} // namespace storage::cloudprovider
