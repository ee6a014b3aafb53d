#include "DiskBackedBuffer.hpp"

#include "LogRecords.hpp"
#include "TemporaryFileException.hpp"

#include <algorithm>
#include <cerrno>

namespace storage::cloudprovider
{

DiskBackedBuffer::DiskBackedBuffer(std::size_t size)
    : m_size(size)
    , m_file(std::make_unique<detail::DiskFile>(size))
{
}

DiskBackedBuffer::~DiskBackedBuffer() = default;

std::size_t DiskBackedBuffer::size() const
{
    return m_size;
}

void DiskBackedBuffer::open()
{
    if (m_isDamaged)
    {
        throw TemporaryFileException("reading a temporary file that could not be closed", EIO);
    }
    // A mapping has at least one byte, and so has the file of an empty buffer.
    m_mapping.open(m_file->accessPath(), std::max<std::size_t>(m_size, 1));
}

bool DiskBackedBuffer::isOpen() const
{
    return m_mapping.isOpen();
}

const char* DiskBackedBuffer::data() const
{
    return m_mapping.data();
}

char* DiskBackedBuffer::data()
{
    return m_mapping.data();
}

void DiskBackedBuffer::close()
{
    try
    {
        m_mapping.close();
    }
    catch (...)
    {
        m_isDamaged = true;
        throw;
    }
}

void DiskBackedBuffer::reserve(std::size_t bytes)
{
    if (bytes <= m_reserved)
    {
        return;
    }
    // Reserve whole pages, and at least double the reservation: a part that grows write by write then needs only a few
    // reservations, and a small file uses no more than its own pages.
    constexpr std::size_t page = 4096;
    const std::size_t wholePages = (bytes + page - 1) / page * page;
    const std::size_t needed = std::min(wholePages, m_size);
    const std::size_t generous = std::min(std::max(wholePages, 2 * m_reserved), m_size);
    try
    {
        reserveUpTo(generous);
    }
    catch (const TemporaryFileException&)
    {
        if (needed == generous)
        {
            throw;
        }
        logCaughtException();
        reserveUpTo(needed); // the disk may still have room for this much
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
        m_file->release(m_reserved, end); // the disk is full, and others may need this space
        throw;
    }
    m_reserved = end;
}

} // namespace storage::cloudprovider
