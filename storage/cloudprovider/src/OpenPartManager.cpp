#include "OpenPartManager.hpp"

#include "LogRecords.hpp"
#include "OpenGuard.hpp"

#include <storage/cloudprovider/CloudExceptions.hpp>

#include <boost/iostreams/device/array.hpp>
#include <boost/iostreams/stream_buffer.hpp>

#include <algorithm>
#include <istream>
#include <shared_mutex>
#include <utility>

namespace storage::cloudprovider
{

namespace
{

constexpr const char* source = "storage/cloudprovider/src/OpenPartManager";

constexpr std::size_t maxGapParts = 10'000; // the maximum of parts that common stores accept for one object

} // namespace

OpenPartManager::OpenPartManager(OpenFileContextSharedPtr context)
    : m_partCache(context->downloadedPartCacheLimit)
    , m_uploadManager(std::make_unique<MultipartUploadManager>(context))
    , m_context(std::move(context))
{
    logEntry(CallSite("storage::cloudprovider::OpenPartManager::OpenPartManager(OpenFileContextSharedPtr)", source));
    addNewPartTo(m_parts);
    m_parts.front()->setSinglePartFile(true);
}

OpenPartManager::~OpenPartManager()
{
    logEntry(CallSite("storage::cloudprovider::OpenPartManager::~OpenPartManager()", source));
}

void OpenPartManager::initPreserveExisting(bool requirePresent)
{
    logEntry(CallSite("void storage::cloudprovider::OpenPartManager::initPreserveExisting(bool)", source),
        named("requirePresent", requirePresent));
    std::vector<PartInfo> stored;
    try
    {
        stored = m_context->client->getObjectParts(m_context->key);
    }
    catch (const ResourceNotFoundException&)
    {
        if (requirePresent)
        {
            throw;
        }
        return; // a new file
    }
    if (stored.empty())
    {
        stored.emplace_back();
    }

    for (std::size_t index = 0, offset = 0; index < stored.size(); offset += stored[index++].Size)
    {
        const PartInfo& part = stored[index];
        if (part.Index != index || part.Offset != offset)
        {
            throw UnsupportedOperationException(
                "getObjectParts(\"" + m_context->key + "\") returned Index " + std::to_string(part.Index) +
                " and Offset " + std::to_string(part.Offset) + " at position " + std::to_string(index) +
                ": Index must be the position, and Offset the sum of the sizes before it, " + std::to_string(offset));
        }
    }

    m_uploadManager->setLastTag(stored.front().Tag);
    const MutexLock lock(m_partsMutex);
    m_parts.clear();
    m_parts.reserve(stored.size());
    for (PartInfo& part : stored) // there may be hundreds of thousands
    {
        const bool isLastPart = part.Index + 1 == stored.size();
        m_parts.push_back(
            std::make_shared<OpenPartBuffer>(std::move(part), LocalDataVersion::CLOUD, isLastPart, m_context));
    }
    m_parts.front()->setSinglePartFile(m_parts.size() == 1);
}

std::size_t OpenPartManager::getFileSize() const
{
    logEntry(CallSite("size_t storage::cloudprovider::OpenPartManager::getFileSize() const", source));
    const MutexLock lock(m_partsMutex);
    return m_parts.back()->end();
}

std::size_t OpenPartManager::findPartIndex(std::size_t fileOffset) const
{
    constexpr CallSite site("size_t storage::cloudprovider::OpenPartManager::findPartIndex(size_t) const", source);
    logEntry(site, named("fileOffset", fileOffset));
    std::size_t partIndex = 0;
    {
        const MutexLock lock(m_partsMutex);
        const auto covering = std::upper_bound(m_parts.begin(), m_parts.end(), fileOffset,
            [](std::size_t offset, const OpenPartBufferSharedPtr& part)
            { return part->offset() + part->capacity() > offset; });
        partIndex = m_parts.size();
        if (covering != m_parts.end())
        {
            partIndex = (*covering)->info().Index;
        }
        else if (m_context->partSize != 0)
        {
            const OpenPartBuffer& last = *m_parts.back();
            partIndex += (fileOffset - (last.offset() + last.capacity())) / m_context->partSize;
        }
    }
    logResult(site, named("partIndex", partIndex));
    return partIndex;
}

void OpenPartManager::addNewPartTo(std::vector<OpenPartBufferSharedPtr>& parts) const
{
    logEntry(CallSite(
        "void storage::cloudprovider::OpenPartManager::addNewPartTo(std::vector<OpenPartBufferSharedPtr> &) const",
        source));
    PartInfo info;
    info.Index = parts.size();
    info.Offset = parts.empty() ? 0 : parts.back()->end();
    parts.push_back(std::make_shared<OpenPartBuffer>(std::move(info), LocalDataVersion::NEW, true, m_context));
}

std::unique_ptr<OpenPartDevice> OpenPartManager::openPart(std::size_t fileOffset, bool createIfNonExistent)
{
    logEntry(CallSite("std::unique_ptr<OpenPartDevice> storage::cloudprovider::OpenPartManager::openPart(size_t, bool)",
                 source),
        named("fileOffset", fileOffset), named("createIfNonExistent", createIfNonExistent));
    const std::shared_lock streamLock(m_streamLock);
    const std::size_t index = findPartIndex(fileOffset);
    if (createIfNonExistent)
    {
        DownloadedPartCache::withRoom([&] { extendTo(fileOffset); });
    }
    OpenPartBufferSharedPtr part;
    {
        const MutexLock lock(m_partsMutex);
        if (!createIfNonExistent && m_parts.back()->end() <= fileOffset)
        {
            return nullptr;
        }
        part = m_parts.at(index);
    }
    m_partCache.removePart(part);
    const std::size_t position = std::min(part->capacity(), fileOffset - part->offset());
    auto device = std::make_unique<OpenPartDevice>(OpenPartDevice{position, part});
    part->open();
    return device;
}

void OpenPartManager::extendTo(std::size_t fileOffset)
{
    for (;;)
    {
        OpenPartBufferSharedPtr last;
        {
            const MutexLock lock(m_partsMutex);
            last = m_parts.back();
        }
        if (last->offset() + last->capacity() > fileOffset)
        {
            return;
        }
        if (m_context->partSize == 0)
        {
            throw UnsupportedOperationException("writing \"" + m_context->key + "\" at offset " +
                                                std::to_string(fileOffset) +
                                                ": the file cannot grow because the part size is 0");
        }
        const std::size_t moreParts = (fileOffset - (last->offset() + last->capacity())) / m_context->partSize;
        if (moreParts >= maxGapParts)
        {
            throw UnsupportedOperationException("writing \"" + m_context->key + "\" at offset " +
                                                std::to_string(fileOffset) + ": the gap needs more than " +
                                                std::to_string(maxGapParts) + " parts of " +
                                                std::to_string(m_context->partSize) + " bytes");
        }
        const bool grows = last->size() < last->capacity();
        if (!grows || last->localDataVersion() == LocalDataVersion::NEW)
        {
            appendPartAfter(last);
            continue;
        }
        // The store has this part, or will have it, with its old size. Load its bytes, so that the part can be uploaded
        // again together with the gap that follows them.
        m_partCache.removePart(last);
        last->open();
        const OpenGuard guard(*last);
        appendPartAfter(last);
    }
}

void OpenPartManager::appendPartAfter(const OpenPartBufferSharedPtr& last)
{
    std::size_t index = 0;
    {
        const MutexLock lock(m_partsMutex);
        if (m_parts.back() != last)
        {
            return; // another thread has appended a part
        }
        last->increaseSizeToMax();
        index = m_parts.size();
        addNewPartTo(m_parts);
        m_parts.front()->setSinglePartFile(false);
    }
    logMessage(foundation::log::severity::progress, "Adding new part with index ", index);
}

void OpenPartManager::closePart(std::unique_ptr<OpenPartDevice> device)
{
    logEntry(
        CallSite("void storage::cloudprovider::OpenPartManager::closePart(std::unique_ptr<OpenPartDevice>)", source));
    const std::shared_lock streamLock(m_streamLock);
    const OpenPartBufferSharedPtr part = std::move(device->m_part);
    device.reset();
    part->close();
    if (part->isOpen() || m_isAbandoned)
    {
        return;
    }
    if (part->localDataVersion() == LocalDataVersion::NEW)
    {
        scheduleUpload(part);
        return;
    }
    for (const OpenPartBufferSharedPtr& evicted : m_partCache.addPart(part, part->capacity()))
    {
        evicted->discardIfUnmodified();
    }
}

void OpenPartManager::rerunFailedUploads()
{
    logEntry(CallSite("void storage::cloudprovider::OpenPartManager::rerunFailedUploads()", source));
    const std::shared_lock streamLock(m_streamLock);
    m_uploadManager->rerunFailedUploads();
}

void OpenPartManager::registerByteStream(bool mayWrite)
{
    logEntry(CallSite("void storage::cloudprovider::OpenPartManager::registerByteStream(bool)", source),
        named("mayWrite", mayWrite));
    const std::unique_lock streamLock(m_streamLock);
    if (m_isAbandoned)
    {
        throw ResourceInUseException("the changes of the file are being dropped");
    }
    if (m_byteStreamCount++ == 0)
    {
        m_writerCount = 0;
        m_isStored = false;
    }
    m_writerCount += mayWrite ? 1 : 0;
}

void OpenPartManager::abandonChanges()
{
    logEntry(CallSite("void storage::cloudprovider::OpenPartManager::abandonChanges()", source));
    const std::unique_lock streamLock(m_streamLock);
    m_isAbandoned = m_byteStreamCount == 1 && m_writerCount == 1;
}

bool OpenPartManager::isStored()
{
    logEntry(CallSite("bool storage::cloudprovider::OpenPartManager::isStored()", source));
    const std::shared_lock streamLock(m_streamLock);
    return m_isStored;
}

void OpenPartManager::unregisterByteStream()
{
    logEntry(CallSite("void storage::cloudprovider::OpenPartManager::unregisterByteStream()", source));
    const std::unique_lock streamLock(m_streamLock);
    --m_byteStreamCount;
    if (m_byteStreamCount == 0 && !m_isAbandoned)
    {
        m_isStored = flushParts(); // under the lock, so that no part is opened or closed meanwhile
    }
}

void OpenPartManager::scheduleUpload(const OpenPartBufferSharedPtr& part)
{
    logEntry(CallSite(
        "void storage::cloudprovider::OpenPartManager::scheduleUpload(const OpenPartBufferSharedPtr &)", source));
    {
        const MutexLock lock(m_partsMutex);
        if (m_parts.size() < 2)
        {
            return; // the flush writes the whole file
        }
    }
    m_uploadManager->asyncUploadPart(
        [&part] { return part->markUploading(); }, part, [part](const std::string& tag) { part->setTag(tag); });
}

bool OpenPartManager::flushParts()
{
    logEntry(CallSite("void storage::cloudprovider::OpenPartManager::flushParts()", source));
    const std::vector<OpenPartBufferSharedPtr> flushed = parts();
    if (flushed.size() == 1)
    {
        flushSinglePartFile(*flushed.front());
        return true;
    }
    for (const OpenPartBufferSharedPtr& part : flushed)
    {
        if (part->localDataVersion() == LocalDataVersion::NEW)
        {
            scheduleUpload(part);
        }
    }
    if (!m_uploadManager->isUploading())
    {
        // Nothing was changed, or no upload could be opened. In both cases the stored object stays as it is.
        return std::all_of(flushed.begin(), flushed.end(),
            [](const OpenPartBufferSharedPtr& part) { return part->localDataVersion() == LocalDataVersion::CLOUD; });
    }
    for (const OpenPartBufferSharedPtr& part : flushed)
    {
        if (part->localDataVersion() == LocalDataVersion::CLOUD)
        {
            m_uploadManager->asyncReusePart(part->storedInfo(), [part](const std::string& tag) { part->setTag(tag); });
        }
    }
    m_uploadManager->joinUploads();

    std::vector<PartInfo> records;
    records.reserve(flushed.size());
    std::transform(flushed.begin(), flushed.end(), std::back_inserter(records),
        [](const OpenPartBufferSharedPtr& part) { return part->info(); });
    m_uploadManager->complete(records);
    for (const OpenPartBufferSharedPtr& part : flushed)
    {
        part->markUploaded();
    }
    return true;
}

void OpenPartManager::flushSinglePartFile(OpenPartBuffer& part)
{
    logEntry(CallSite("void storage::cloudprovider::OpenPartManager::flushSinglePartFile(OpenPartBuffer &)", source));
    if (!part.openIfModified())
    {
        return;
    }
    const OpenGuard guard(part);
    // The part stays NEW. A stream that is opened on this part manager after the flush writes the file again when it is
    // closed. That is at most one put too many, but never one too few.
    const OpenPartBuffer::View bytes = part.view();
    boost::iostreams::stream_buffer<boost::iostreams::basic_array_source<char>> memory(bytes.data, bytes.size);
    std::istream content(&memory);
    m_context->client->putObject(m_context->key, content, bytes.size);
}

std::vector<OpenPartBufferSharedPtr> OpenPartManager::parts() const
{
    const MutexLock lock(m_partsMutex);
    return m_parts;
}

} // namespace storage::cloudprovider
