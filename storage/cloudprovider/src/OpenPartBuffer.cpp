#include "OpenPartBuffer.hpp"

#include "DownloadedPartCache.hpp"
#include "LogRecords.hpp"
#include "OpenGuard.hpp"

#include <storage/cloudprovider/CloudExceptions.hpp>

#include <boost/iostreams/concepts.hpp>
#include <boost/iostreams/device/array.hpp>
#include <boost/iostreams/stream_buffer.hpp>

#include <algorithm>
#include <cstring>
#include <ostream>

namespace storage::cloudprovider
{

namespace
{

constexpr const char* source = "storage/cloudprovider/src/OpenPartBuffer";

/// A sink that keeps the first byte and discards the rest.
class FirstByteSink : public boost::iostreams::sink
{
public:
    FirstByteSink(char* byte, std::size_t& received)
        : m_byte(byte)
        , m_received(received)
    {
    }

    std::streamsize write(const char* s, std::streamsize n)
    {
        if (m_received == 0 && n > 0)
        {
            *m_byte = *s;
            m_received = 1;
        }
        return n;
    }

private:
    char* m_byte;
    std::size_t& m_received;
};

/// Download the range into memory of `size` bytes. It is an error if the store sends more.
/// @return the number of bytes received
std::size_t downloadRange(
    const OpenFileContext& context, char* data, std::size_t size, std::uint64_t first, std::uint64_t last)
{
    // Use basic_array_sink: basic_array, which can be read too, counts its position in an int.
    boost::iostreams::stream_buffer<boost::iostreams::basic_array_sink<char>> memory(data, size);
    std::ostream out(&memory);
    out.exceptions(std::ios_base::badbit); // to detect excess bytes
    context.client->getObjectRange(context.key, out, first, last);
    return static_cast<std::size_t>(std::max<std::streamoff>(out.tellp(), 0));
}

/// Download the first byte of an object that has more bytes. Its range, (0, 0), means the whole object, so the store
/// sends all bytes and the rest is discarded.
/// @return the number of bytes kept: 1, or 0 if the store sent none
std::size_t downloadFirstByte(const OpenFileContext& context, char* byte)
{
    std::size_t received = 0;
    boost::iostreams::stream_buffer<FirstByteSink> sink(FirstByteSink(byte, received));
    std::ostream out(&sink);
    context.client->getObjectRange(context.key, out, 0, 0);
    out.flush();
    return received;
}

} // namespace

OpenPartBuffer::OpenPartBuffer(
    PartInfo info, LocalDataVersion version, bool isLastPart, OpenFileContextSharedPtr context)
    : m_info(std::move(info))
    , m_storedTag(m_info.Tag)
    , m_localDataVersion(version)
    , m_offset(m_info.Offset)
    , m_maxSize(isLastPart && m_info.Size <= context->partSize ? context->partSize : m_info.Size)
    , m_context(std::move(context))
{
    logEntry(CallSite("storage::cloudprovider::OpenPartBuffer::OpenPartBuffer(PartInfo, LocalDataVersion, bool, "
                      "OpenFileContextSharedPtr)",
                 source),
        named("m_info", m_info), named("m_localDataVersion", m_localDataVersion));
}

OpenPartBuffer::~OpenPartBuffer() = default;

std::size_t OpenPartBuffer::size() const
{
    const MutexLock lock(m_mutex);
    return m_info.Size;
}

std::size_t OpenPartBuffer::end() const
{
    return m_offset + size();
}

void OpenPartBuffer::open()
{
    logEntry(CallSite("virtual void storage::cloudprovider::OpenPartBuffer::open()", source));
    if (incrementOpenCount())
    {
        return;
    }
    OpenGuard guard(*this);
    if (localDataVersion() == LocalDataVersion::CLOUD)
    {
        download();
    }
    else
    {
        createBlank();
    }
    guard.release();
}

bool OpenPartBuffer::isOpen() const
{
    const MutexLock lock(m_mutex);
    return m_openCount != 0;
}

const char* OpenPartBuffer::data() const
{
    const MutexLock lock(m_mutex);
    return m_buffer ? std::as_const(*m_buffer).data() : nullptr;
}

char* OpenPartBuffer::data()
{
    const MutexLock lock(m_mutex);
    return m_buffer ? m_buffer->data() : nullptr;
}

void OpenPartBuffer::close()
{
    decrementOpenCount();
}

bool OpenPartBuffer::incrementOpenCount()
{
    logEntry(CallSite("bool storage::cloudprovider::OpenPartBuffer::incrementOpenCount()", source));
    MutexLock lock(m_mutex);
    while (m_openCount != 0 && !m_buffer)
    {
        m_changed.wait(lock);
    }
    if (m_openCount == 0 && m_buffer)
    {
        try
        {
            m_buffer->open();
        }
        catch (...)
        {
            m_changed.notify_one(); // the next waiting opener tries itself
            throw;
        }
    }
    ++m_openCount;
    m_changed.notify_one();
    return m_buffer != nullptr;
}

void OpenPartBuffer::decrementOpenCount()
{
    logEntry(CallSite("void storage::cloudprovider::OpenPartBuffer::decrementOpenCount()", source));
    const MutexLock lock(m_mutex);
    --m_openCount;
    if (m_openCount == 0 && m_buffer)
    {
        try
        {
            m_buffer->close();
        }
        catch (...)
        {
            logCaughtException();
            if (m_localDataVersion == LocalDataVersion::CLOUD)
            {
                m_buffer.reset(); // the next open() loads the bytes again
            }
        }
    }
    m_changed.notify_one();
}

BufferPtr OpenPartBuffer::buildOpenBuffer(std::size_t usedBytes) const
{
    return DownloadedPartCache::withRoom(
        [&]
        {
            // The buffer has the part's capacity, so that the part can grow in place.
            BufferPtr buffer = m_context->bufferFactory->build(m_maxSize);
            buffer->open();
            buffer->reserve(usedBytes);
            return buffer;
        });
}

void OpenPartBuffer::download()
{
    logEntry(CallSite("void storage::cloudprovider::OpenPartBuffer::download()", source));
    // The size cannot change during the download: only openers change it, and this is the only one.
    const PartInfo part = info();
    BufferPtr buffer = buildOpenBuffer(part.Size);
    bool wholeObject = false;
    {
        const MutexLock lock(m_mutex);
        wholeObject = m_singlePartFile;
    }
    const bool firstByteOfMany = !wholeObject && part.Offset == 0 && part.Size == 1;
    const std::size_t received =
        firstByteOfMany ? downloadFirstByte(*m_context, buffer->data())
                        : downloadRange(*m_context, buffer->data(), part.Size, wholeObject ? 0 : part.Offset,
                              wholeObject ? 0 : part.Offset + part.Size - 1);
    if (received != part.Size)
    {
        throw UnknownErrorException("downloading part " + std::to_string(part.Index) + " of \"" + m_context->key +
                                    "\": expected " + std::to_string(part.Size) + " bytes, the store sent " +
                                    std::to_string(received));
    }
    setOpenBuffer(std::move(buffer));
}

void OpenPartBuffer::createBlank()
{
    logEntry(CallSite("void storage::cloudprovider::OpenPartBuffer::createBlank()", source));
    const std::size_t used = size();
    BufferPtr buffer = buildOpenBuffer(used);
    std::memset(buffer->data(), 0, used);
    setOpenBuffer(std::move(buffer));
}

void OpenPartBuffer::setOpenBuffer(BufferPtr buffer)
{
    logEntry(CallSite("void storage::cloudprovider::OpenPartBuffer::setOpenBuffer(BufferPtr)", source));
    const MutexLock lock(m_mutex);
    buffer->reserve(m_info.Size); // a new part may have grown over a gap since its zeros were written
    m_buffer = std::move(buffer);
    m_changed.notify_one();
}

std::size_t OpenPartBuffer::growTo(std::size_t newSize)
{
    const std::size_t oldSize = m_info.Size;
    if (newSize > oldSize)
    {
        if (m_buffer)
        {
            m_buffer->reserve(newSize);
        }
        m_info.Size = newSize;
    }
    return oldSize;
}

void OpenPartBuffer::increaseSizeToMax()
{
    logEntry(CallSite("void storage::cloudprovider::OpenPartBuffer::increaseSizeToMax()", source));
    const MutexLock lock(m_mutex);
    if (growTo(m_maxSize) < m_maxSize)
    {
        m_localDataVersion = LocalDataVersion::NEW; // under the same lock, because an upload may begin at any time
    }
}

std::size_t OpenPartBuffer::increaseSize(std::size_t amount)
{
    logEntry(CallSite("size_t storage::cloudprovider::OpenPartBuffer::increaseSize(size_t)", source),
        named("amount", amount));
    return DownloadedPartCache::withRoom(
        [&]
        {
            const MutexLock lock(m_mutex);
            return growTo(std::min(m_maxSize, m_info.Size + amount));
        });
}

std::size_t OpenPartBuffer::increaseSize(std::size_t amount, std::size_t offset)
{
    logEntry(CallSite("size_t storage::cloudprovider::OpenPartBuffer::increaseSize(size_t, size_t)", source),
        named("amount", amount), named("offset", offset));
    return DownloadedPartCache::withRoom(
        [&]
        {
            const MutexLock lock(m_mutex);
            return growTo(std::min(m_maxSize, offset + amount));
        });
}

void OpenPartBuffer::markModified()
{
    logEntry(CallSite("void storage::cloudprovider::OpenPartBuffer::markModified()", source));
    const MutexLock lock(m_mutex);
    m_localDataVersion = LocalDataVersion::NEW;
}

PartInfo OpenPartBuffer::markUploading()
{
    logEntry(CallSite("PartInfo storage::cloudprovider::OpenPartBuffer::markUploading()", source));
    const MutexLock lock(m_mutex);
    PartInfo record = m_info; // before the state changes, because it takes memory
    m_localDataVersion = LocalDataVersion::SCHEDULED_UPLOAD;
    return record;
}

void OpenPartBuffer::markUploaded()
{
    logEntry(CallSite("void storage::cloudprovider::OpenPartBuffer::markUploaded()", source));
    const MutexLock lock(m_mutex);
    if (m_localDataVersion != LocalDataVersion::NEW)
    {
        m_storedTag = m_info.Tag;
        m_localDataVersion = LocalDataVersion::CLOUD;
    }
}

void OpenPartBuffer::discardIfUnmodified()
{
    logEntry(CallSite("void storage::cloudprovider::OpenPartBuffer::discardIfUnmodified()", source));
    const MutexLock lock(m_mutex);
    if (m_openCount == 0 && m_localDataVersion == LocalDataVersion::CLOUD)
    {
        m_buffer.reset();
    }
}

bool OpenPartBuffer::openIfModified()
{
    logEntry(CallSite("bool storage::cloudprovider::OpenPartBuffer::openIfModified()", source));
    const bool loaded = incrementOpenCount();
    OpenGuard guard(*this);
    if (localDataVersion() != LocalDataVersion::NEW)
    {
        return false;
    }
    if (!loaded)
    {
        createBlank();
    }
    guard.release();
    return true;
}

void OpenPartBuffer::setTag(std::string tag)
{
    logEntry(CallSite("void storage::cloudprovider::OpenPartBuffer::setTag(std::string)", source));
    const MutexLock lock(m_mutex);
    m_info.Tag = std::move(tag);
}

void OpenPartBuffer::setSinglePartFile(bool single)
{
    const MutexLock lock(m_mutex);
    m_singlePartFile = single;
}

PartInfo OpenPartBuffer::info() const
{
    const MutexLock lock(m_mutex);
    return m_info;
}

PartInfo OpenPartBuffer::storedInfo() const
{
    const MutexLock lock(m_mutex);
    PartInfo stored = m_info;
    stored.Tag = m_storedTag;
    return stored;
}

LocalDataVersion OpenPartBuffer::localDataVersion() const
{
    const MutexLock lock(m_mutex);
    return m_localDataVersion;
}

OpenPartBuffer::View OpenPartBuffer::view()
{
    const MutexLock lock(m_mutex);
    return {m_buffer ? m_buffer->data() : nullptr, m_info.Size};
}

} // namespace storage::cloudprovider
