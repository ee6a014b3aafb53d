#include "MultipartUploadManager.hpp"

#include "LogRecords.hpp"
#include "OpenGuard.hpp"

#include <boost/iostreams/device/array.hpp>
#include <boost/iostreams/stream_buffer.hpp>

#include <algorithm>
#include <istream>
#include <utility>

namespace storage::cloudprovider
{

namespace
{
constexpr const char* source = "storage/cloudprovider/src/MultipartUploadManager";
} // namespace

MultipartUploadManager::MultipartUploadManager(OpenFileContextSharedPtr context)
    : m_context(std::move(context))
{
    logEntry(CallSite(
        "storage::cloudprovider::MultipartUploadManager::MultipartUploadManager(OpenFileContextSharedPtr)", source));
}

MultipartUploadManager::~MultipartUploadManager()
{
    logEntry(CallSite("storage::cloudprovider::MultipartUploadManager::~MultipartUploadManager()", source));
    try
    {
        cancel();
    }
    catch (...)
    {
        logCaughtException();
    }
}

void MultipartUploadManager::asyncUploadPart(
    const RecordSource& takeRecord, BufferSharedPtr buffer, DoneCallback onDone)
{
    logEntry(CallSite("void storage::cloudprovider::MultipartUploadManager::asyncUploadPart(const RecordSource &, "
                      "BufferSharedPtr, DoneCallback)",
        source));
    UploadTasks task(1); // takes memory before the record is taken: a part whose record was taken must be queued
    task.front().buffer = std::move(buffer);
    task.front().onDone = std::move(onDone);
    {
        const MutexLock lock(m_mutex);
        task.front().info = takeRecord();
        enqueue(task);
    }
    processQueueAndLogFailure();
}

void MultipartUploadManager::asyncReusePart(PartInfo info, DoneCallback onDone)
{
    logEntry(CallSite(
        "void storage::cloudprovider::MultipartUploadManager::asyncReusePart(PartInfo, DoneCallback)", source));
    UploadTasks task;
    task.push_back({std::move(info), nullptr, std::move(onDone)});
    {
        const MutexLock lock(m_mutex);
        enqueue(task);
    }
    processQueueAndLogFailure();
}

std::string MultipartUploadManager::uploadPart(const PartInfo& info, const char* data)
{
    logEntry(CallSite(
        "std::string storage::cloudprovider::MultipartUploadManager::uploadPart(const PartInfo &, const char *)",
        source));
    const std::string uploadId = getUploadId();
    boost::iostreams::stream_buffer<boost::iostreams::basic_array_source<char>> memory(data, info.Size);
    std::istream content(&memory);
    std::string tag = m_context->client->uploadPart(m_context->key, uploadId, info, content);
    setLastTag(tag);
    return tag;
}

std::string MultipartUploadManager::reusePart(const PartInfo& info)
{
    logEntry(
        CallSite("std::string storage::cloudprovider::MultipartUploadManager::reusePart(const PartInfo &)", source));
    const std::string uploadId = getUploadId();
    return m_context->client->copyPart(m_context->key, uploadId, info);
}

void MultipartUploadManager::rerunFailedUploads()
{
    logEntry(CallSite("void storage::cloudprovider::MultipartUploadManager::rerunFailedUploads()", source));
    processQueue();
}

void MultipartUploadManager::joinUploads()
{
    logEntry(CallSite("void storage::cloudprovider::MultipartUploadManager::joinUploads()", source));
    rerunFailedUploads();
}

void MultipartUploadManager::complete(const std::vector<PartInfo>& parts)
{
    logEntry(CallSite(
        "void storage::cloudprovider::MultipartUploadManager::complete(const std::vector<PartInfo> &)", source));
    const MutexLock lock(m_mutex);
    if (m_uploadId)
    {
        m_context->client->completeMultipartUpload(m_context->key, *m_uploadId, parts);
        m_uploadId.reset();
    }
}

void MultipartUploadManager::cancel()
{
    logEntry(CallSite("void storage::cloudprovider::MultipartUploadManager::cancel()", source));
    const MutexLock lock(m_mutex);
    if (!m_uploadId)
    {
        return;
    }
    m_context->client->abortMultipartUpload(m_context->key, *m_uploadId);
    m_uploadId.reset();
    m_queue.clear();
}

void MultipartUploadManager::setLastTag(std::string tag)
{
    const MutexLock lock(m_mutex);
    m_lastTag = std::move(tag);
}

bool MultipartUploadManager::isUploading() const
{
    const MutexLock lock(m_mutex);
    return m_uploadId.has_value();
}

std::string MultipartUploadManager::getUploadId()
{
    logEntry(CallSite("std::string storage::cloudprovider::MultipartUploadManager::getUploadId()", source));
    const MutexLock lock(m_mutex);
    if (!m_uploadId)
    {
        m_uploadId = m_context->client->createMultipartUpload(m_context->key, m_lastTag);
    }
    return *m_uploadId;
}

bool MultipartUploadManager::holds(const UploadTasks& tasks, std::size_t index)
{
    return std::any_of(tasks.begin(), tasks.end(), [&](const UploadTask& task) { return task.info.Index == index; });
}

void MultipartUploadManager::enqueue(UploadTasks& task)
{
    const std::size_t index = task.front().info.Index;
    m_queue.remove_if([&](const UploadTask& waiting) { return waiting.info.Index == index; });
    m_queue.splice(m_queue.end(), task);
}

void MultipartUploadManager::processQueueAndLogFailure()
{
    try
    {
        processQueue();
    }
    catch (...)
    {
        logCaughtException();
    }
}

void MultipartUploadManager::processQueue()
{
    while (const std::optional<UploadTasks::iterator> task = takeNextTask())
    {
        UploadTasks done; // destroyed without the lock
        try
        {
            transfer(**task);
        }
        catch (...)
        {
            requeue(*task);
            throw;
        }
        const MutexLock lock(m_mutex);
        done.splice(done.end(), m_inFlight, *task);
    }
}

std::optional<MultipartUploadManager::UploadTasks::iterator> MultipartUploadManager::takeNextTask()
{
    const MutexLock lock(m_mutex);
    // Skip parts in flight: the thread that is transferring such a part comes back here when it has finished.
    const auto next = std::find_if(m_queue.begin(), m_queue.end(),
        [this](const UploadTask& task) REQUIRES(m_mutex) { return !holds(m_inFlight, task.info.Index); });
    if (next == m_queue.end())
    {
        return std::nullopt;
    }
    m_inFlight.splice(m_inFlight.end(), m_queue, next);
    return next;
}

void MultipartUploadManager::transfer(UploadTask& task)
{
    if (!task.buffer)
    {
        task.onDone(reusePart(task.info));
        return;
    }
    // Open the upload first. If the buffer then cannot be opened, the flush sees an open upload and reports the
    // failure.
    getUploadId();
    std::string tag;
    {
        task.buffer->open();
        const OpenGuard guard(*task.buffer);
        tag = uploadPart(task.info, task.buffer->data());
    }
    task.onDone(tag);
}

void MultipartUploadManager::requeue(UploadTasks::iterator task)
{
    UploadTasks superseded; // destroyed without the lock
    const MutexLock lock(m_mutex);
    UploadTasks& target = holds(m_queue, task->info.Index) ? superseded : m_queue;
    target.splice(target.end(), m_inFlight, task);
}

} // namespace storage::cloudprovider
