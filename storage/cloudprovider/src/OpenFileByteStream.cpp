#include "OpenFileByteStream.hpp"

#include "ErrorTranslation.hpp"
#include "LogRecords.hpp"

#include <storage/cloudprovider/CloudExceptions.hpp>

#include <foundation/storage/provider/ByteStreamFailure.hpp>

#include <boost/numeric/conversion/cast.hpp>

#include <algorithm>
#include <cstring>
#include <exception>
#include <limits>

namespace storage::cloudprovider
{

namespace fsp = foundation::storage::provider;

namespace
{

constexpr const char* source = "storage/cloudprovider/src/OpenFileByteStream";

/// Run the body of a stream operation. Translate any exception into the operation's failure type.
template <typename Failure, typename Body>
auto mapStreamError(Body body)
{
    try
    {
        return body();
    }
    catch (...)
    {
        logCaughtException();
        throw Failure(errorCodeOfCurrentException());
    }
}

/// Throw if the stream is closed.
template <typename Failure>
void requireOpen(const OpenPartManager* partManager)
{
    if (partManager == nullptr)
    {
        throw Failure(fsp::ErrorCode(fsp::ErrorCode::Unknown, "the stream is closed"));
    }
}

} // namespace

OpenFileByteStream::OpenFileByteStream(
    std::shared_ptr<OpenPartManager> partManager, fsp::ByteStreamWritePosition position, bool mayWrite)
    : m_writeAtOffset(position)
    , m_partManager(std::move(partManager))
{
    m_partManager->registerByteStream(mayWrite);
}

OpenFileByteStream::~OpenFileByteStream()
{
    try
    {
        OpenFileByteStream::doClose();
    }
    catch (...)
    {
        logCaughtException();
    }
}

std::streamsize OpenFileByteStream::doRead(char* s, std::streamsize n)
{
    static constexpr CallSite site(
        "virtual std::streamsize storage::cloudprovider::OpenFileByteStream::doRead(char *, std::streamsize)", source);
    logEntry(site, named("n", n));
    requireOpen<fsp::ByteStreamReadFailure>(m_partManager.get());
    return mapStreamError<fsp::ByteStreamReadFailure>(
        [&]
        {
            dropInvalidPart();
            std::streamsize bytesRead = 0;
            while (!m_atEnd && bytesRead < n)
            {
                if (!m_device)
                {
                    openPartAtOffset(false);
                    continue;
                }
                bytesRead += static_cast<std::streamsize>(
                    readFromPart(s + bytesRead, boost::numeric_cast<std::size_t>(n - bytesRead)));
                if (bytesRead < n)
                {
                    closeCurrentPart();
                }
            }
            const std::streamsize result = m_atEnd && bytesRead == 0 ? -1 : bytesRead;
            logResult(site, named("bytesRead", result));
            return result;
        });
}

std::streamsize OpenFileByteStream::doWrite(const char* s, std::streamsize n)
{
    static constexpr CallSite site(
        "virtual std::streamsize storage::cloudprovider::OpenFileByteStream::doWrite(const char *, std::streamsize)",
        source);
    logEntry(site, named("n", n));
    requireOpen<fsp::ByteStreamWriteFailure>(m_partManager.get());
    return mapStreamError<fsp::ByteStreamWriteFailure>(
        [&]
        {
            dropInvalidPart();
            m_partManager->rerunFailedUploads();
            std::streamsize bytesWritten = 0;
            while (!m_atEnd && bytesWritten < n)
            {
                if (!m_device)
                {
                    openPartAtOffset(true);
                    continue;
                }
                bytesWritten += static_cast<std::streamsize>(
                    writeIntoPart(s + bytesWritten, boost::numeric_cast<std::size_t>(n - bytesWritten)));
                if (bytesWritten < n)
                {
                    closeCurrentPart(); // full
                }
            }
            const std::streamsize result = m_atEnd && bytesWritten == 0 ? -1 : bytesWritten;
            logResult(site, named("bytesWritten", result));
            return result;
        });
}

std::streampos OpenFileByteStream::doSeek(const stream_offset off, const std::ios_base::seekdir way)
{
    static constexpr CallSite site("virtual std::streampos storage::cloudprovider::OpenFileByteStream::doSeek(const "
                                   "stream_offset, const std::ios_base::seekdir)",
        source);
    logEntry(site, named("off", off), named("way", static_cast<int>(way)));
    requireOpen<fsp::ByteStreamSeekFailure>(m_partManager.get());
    return mapStreamError<fsp::ByteStreamSeekFailure>(
        [&]
        {
            constexpr auto max = std::numeric_limits<stream_offset>::max();
            std::uint64_t target = way == std::ios_base::beg   ? 0
                                   : way == std::ios_base::cur ? m_fileOffset
                                                               : m_partManager->getFileSize();
            if (off < 0)
            {
                // The lowest offset has no positive counterpart. It stays negative, and the cast throws.
                const auto back = boost::numeric_cast<std::uint64_t>(off < -max ? off : -off);
                target = target > back ? target - back : 0;
            }
            else if (target > static_cast<std::uint64_t>(max - off))
            {
                throw UnsupportedOperationException("the position would be beyond 2^63-1");
            }
            else
            {
                target += static_cast<std::uint64_t>(off);
            }
            if (m_device)
            {
                const OpenPartBuffer& part = *m_device->m_part;
                if (target >= part.offset() && target < part.offset() + part.capacity())
                {
                    m_device->m_partOffset = target - part.offset();
                }
                else
                {
                    closeCurrentPart();
                }
            }
            m_fileOffset = target;
            m_atEnd = false;
            logResult(site, named("m_fileOffset", m_fileOffset));
            return std::streampos(static_cast<std::streamoff>(m_fileOffset));
        });
}

void OpenFileByteStream::doClose()
{
    logEntry(CallSite("virtual void storage::cloudprovider::OpenFileByteStream::doClose()", source));
    std::exception_ptr firstFailure;
    if (m_device)
    {
        try
        {
            m_partManager->closePart(std::move(m_device));
        }
        catch (...)
        {
            logCaughtException();
            firstFailure = std::current_exception();
        }
    }
    if (m_partManager)
    {
        try
        {
            m_partManager->unregisterByteStream();
        }
        catch (...)
        {
            logCaughtException();
            if (!firstFailure)
            {
                firstFailure = std::current_exception();
            }
        }
        m_partManager.reset();
    }
    if (firstFailure)
    {
        try
        {
            std::rethrow_exception(firstFailure);
        }
        catch (...) // already logged above
        {
            throw fsp::ByteStreamCloseFailure(errorCodeOfCurrentException());
        }
    }
}

void OpenFileByteStream::doAbandon()
{
    logEntry(CallSite("virtual void storage::cloudprovider::OpenFileByteStream::doAbandon()", source));
    if (m_partManager)
    {
        m_partManager->abandonChanges();
    }
}

void OpenFileByteStream::dropInvalidPart()
{
    if (m_device && m_device->m_part->localDataVersion() == LocalDataVersion::INVALID)
    {
        closeCurrentPart();
    }
}

void OpenFileByteStream::closeCurrentPart()
{
    if (m_device)
    {
        m_partManager->closePart(std::move(m_device));
    }
}

void OpenFileByteStream::openPartAtOffset(bool createIfNonExistent)
{
    if (createIfNonExistent && isAppending())
    {
        m_fileOffset = m_partManager->getFileSize();
    }
    m_device = m_partManager->openPart(m_fileOffset, createIfNonExistent);
    m_atEnd = !m_device;
}

bool OpenFileByteStream::isAppending() const
{
    return m_writeAtOffset == fsp::ByteStreamWritePosition::Append;
}

std::size_t OpenFileByteStream::readFromPart(char* s, std::size_t remaining)
{
    const OpenPartBuffer::View part = m_device->m_part->view();
    std::size_t& position = m_device->m_partOffset;
    if (part.size <= position)
    {
        return 0;
    }
    const std::size_t count = std::min(part.size - position, remaining);
    std::memcpy(s, part.data + position, count);
    position += count;
    m_fileOffset += count;
    return count;
}

std::size_t OpenFileByteStream::writeIntoPart(const char* s, std::size_t remaining)
{
    OpenPartBuffer& part = *m_device->m_part;
    std::size_t& position = m_device->m_partOffset;
    if (isAppending())
    {
        position = part.increaseSize(remaining);
    }
    else
    {
        part.increaseSize(remaining, position);
    }
    const OpenPartBuffer::View bytes = part.view();
    std::size_t count = 0;
    if (bytes.size > position)
    {
        count = std::min(bytes.size - position, remaining);
        std::memcpy(bytes.data + position, s, count);
        position += count;
        part.markModified();
    }
    // An appending stream moves to the end of the part, which other streams may have extended meanwhile.
    m_fileOffset = isAppending() ? part.end() : m_fileOffset + count;
    return count;
}

} // namespace storage::cloudprovider
