#include "DiskBackedBuffer.hpp"

#include "LogRecords.hpp"

#include <storage/cloudprovider/CloudExceptions.hpp>

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
    const std::size_t needed = std::min(wholePages, m_size);
    const std::size_t generous = std::min(std::max(wholePages, 2 * m_reserved), m_size);
    try
    {
        reserveUpTo(generous);
    }
    catch (const UnknownErrorException&)
    {
        if (needed == generous)
        {
            throw;
        }
        logCaughtException();
        reserveUpTo(needed); // the disk may have room for this much
    }
}

void DiskBackedBuffer::reserveUpTo(std::size_t end)
{
    try
    {
        m_file->fillWithZeros(m_reserved, end);
    }
    catch (...)
    {
        m_file->release(m_reserved, end); // others are short of room too
        throw;
    }
    m_reserved = end;
}

} // namespace storage::cloudprovider
