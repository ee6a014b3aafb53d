#include "UploadPipeline.hpp"

#include <storage/clients/common/Content.hpp>
#include <storage/clients/common/KeyRules.hpp>
#include <storage/clients/common/TransientException.hpp>
#include <storage/cloudprovider/CloudExceptions.hpp>
#include <storage/cloudprovider/Logger.hpp>

#include <foundation/log/Severity.hpp>

#include <boost/iostreams/device/array.hpp>
#include <boost/iostreams/stream_buffer.hpp>
#include <fmt/format.h>

#include <algorithm>
#include <istream>

namespace storage::clients
{

using namespace storage::cloudprovider;

namespace
{

std::string currentExceptionText()
{
    try
    {
        throw;
    }
    catch (const CloudException& failure)
    {
        return failure.detail().value_or(failure.what());
    }
    catch (const std::exception& failure)
    {
        return failure.what();
    }
    catch (...)
    {
        return "unknown exception";
    }
}

} // namespace

UploadPipeline::UploadPipeline(CloudClient& inner, const PipelineSettings& settings)
    : m_inner(inner)
    , m_buffers(settings.memory)
    , m_threads(settings.transfers)
{
}

UploadPipeline::~UploadPipeline()
{
    const auto open = m_uploads; // no lock: no call is in progress, and the workers do not touch the map
    std::exception_ptr outage;   // the next abort would take as long to fail
    for (const auto& [address, upload] : open)
    {
        try
        {
            try
            {
                outage ? std::rethrow_exception(outage) : abort(upload->key, upload->id);
            }
            catch (const TransientException&)
            {
                outage = std::current_exception();
                throw;
            }
        }
        catch (...)
        {
            getLogger().write(
                foundation::log::severity::error, fmt::format("Aborting an upload of {} failed; it stays open: {}",
                                                      quoted(upload->key), currentExceptionText()));
        }
    }
}

std::string UploadPipeline::create(const std::string& key, const std::string& tag)
{
    std::string id = m_inner.createMultipartUpload(key, baseTag(tag));
    const std::lock_guard lock(m_mutex);
    m_uploads.insert_or_assign({key, id}, std::make_shared<Upload>(Upload{key, id}));
    return id;
}

std::string UploadPipeline::send(
    const std::string& key, const std::string& id, const PartInfo& part, std::istream& content)
{
    const UploadPtr upload = find(key, id);
    if (!upload)
    {
        return m_inner.uploadPart(key, id, part, content);
    }
    std::optional<BufferPool::Lease> bytes = m_buffers.acquire(part.Size);
    reportFailure(*upload);
    if (!bytes || !m_threads.start())
    {
        return transferOnCallersThread(upload, part.Index, [&] { return m_inner.uploadPart(key, id, part, content); });
    }
    readContent(key, content, bytes->data(), part.Size);
    return enqueue(upload, part, std::move(bytes));
}

std::string UploadPipeline::copy(const std::string& key, const std::string& id, const PartInfo& part)
{
    PartInfo source = part;
    source.Tag = sourceTag(part.Tag);
    const UploadPtr upload = find(key, id);
    if (!upload)
    {
        return m_inner.copyPart(key, id, source);
    }
    reportFailure(*upload);
    if (!m_threads.start())
    {
        return transferOnCallersThread(upload, part.Index, [&] { return m_inner.copyPart(key, id, source); });
    }
    return enqueue(upload, source, std::nullopt);
}

void UploadPipeline::abort(const std::string& key, const std::string& id)
{
    const UploadPtr upload = find(key, id);
    if (!upload)
    {
        m_inner.abortMultipartUpload(key, id);
        return;
    }
    {
        Lock lock(m_mutex);
        dropUnstored(*upload, lock);
        waitUntilIdle(*upload, lock);
        dropUnstored(*upload, lock); // those that have failed meanwhile, in case the abort fails
    }
    try
    {
        m_inner.abortMultipartUpload(key, id);
    }
    catch (const ResourceNotFoundException&)
    {
        end(*upload);
        throw;
    }
    end(*upload);
}

void UploadPipeline::complete(const std::string& key, const std::string& id, const std::vector<PartInfo>& parts)
{
    const UploadPtr upload = find(key, id);
    if (!upload)
    {
        m_inner.completeMultipartUpload(key, id, parts);
        return;
    }
    std::vector<PartInfo> stored = parts;
    {
        Lock lock(m_mutex);
        waitUntilIdle(*upload, lock);
        retryFailed(upload, parts, lock);
        upload->unreported = nullptr; // failures that still count are thrown below
        for (PartInfo& part : stored)
        {
            part.Tag = m_tags.isProvisional(part.Tag) ? storedTag(*upload, part, lock) : part.Tag;
        }
    }
    m_inner.completeMultipartUpload(key, id, stored);
    end(*upload);
}

/// @return null: the upload was not opened by this instance, or has ended
UploadPipeline::UploadPtr UploadPipeline::find(const std::string& key, const std::string& id)
{
    const std::lock_guard lock(m_mutex);
    const auto upload = m_uploads.find({key, id});
    return upload == m_uploads.end() ? nullptr : upload->second;
}

void UploadPipeline::reportFailure(Upload& upload)
{
    const std::lock_guard lock(m_mutex);
    if (const std::exception_ptr failure = std::exchange(upload.unreported, nullptr))
    {
        std::rethrow_exception(failure);
    }
}

/// Transfer a part on the caller's thread, and return the inner client's tag. If this fails, an earlier transfer of the
/// part stays valid.
template <typename Call>
std::string UploadPipeline::transferOnCallersThread(const UploadPtr& upload, std::size_t index, Call call)
{
    Lock lock(m_mutex);
    TransferPtr earlier;
    m_changed.wait(lock,
        [&]
        {
            earlier = newest(*upload, index);
            const bool waits = earlier && earlier->state == Transfer::State::Waiting;
            return !waits && !upload->running.contains(index);
        });
    upload->running.insert(index);
    ++upload->unfinished;
    lock.unlock();
    std::string tag;
    std::exception_ptr failure;
    try
    {
        tag = call();
    }
    catch (...)
    {
        failure = std::current_exception();
    }
    lock.lock();
    if (!failure && newest(*upload, index) == earlier)
    {
        upload->parts.erase(index);
    }
    finish(upload, index, lock);
    if (failure)
    {
        std::rethrow_exception(failure);
    }
    return tag;
}

std::string UploadPipeline::enqueue(
    const UploadPtr& upload, const PartInfo& part, std::optional<BufferPool::Lease> bytes)
{
    const Lock lock(m_mutex);
    const auto transfer = std::make_shared<Transfer>(Transfer{part, m_tags.make(), std::move(bytes)});
    post(upload, transfer); // starts after the lock is released
    if (const TransferPtr earlier = std::exchange(upload->parts[part.Index], transfer))
    {
        drop(*upload, *earlier, lock);
    }
    transfer->state = Transfer::State::Waiting;
    ++upload->unfinished;
    return transfer->tag;
}

void UploadPipeline::post(const UploadPtr& upload, const TransferPtr& transfer)
{
    m_threads.post([this, upload, transfer] { run(upload, transfer); });
}

void UploadPipeline::run(const UploadPtr& upload, const TransferPtr& transfer)
{
    const std::size_t index = transfer->part.Index;
    Lock lock(m_mutex);
    if (transfer->state != Transfer::State::Waiting || !upload->running.insert(index).second)
    {
        return;
    }
    transfer->state = Transfer::State::Running;
    lock.unlock();
    std::string tag;
    std::exception_ptr failure;
    try
    {
        tag = perform(*upload, *transfer);
    }
    catch (...)
    {
        failure = std::current_exception();
    }
    lock.lock();
    transfer->innerTag = tag;
    transfer->failure = failure;
    if (!failure)
    {
        transfer->state = Transfer::State::Stored;
        transfer->bytes.reset();
    }
    else if (newest(*upload, index) == transfer)
    {
        transfer->state = Transfer::State::Failed;
        if (transfer->bytes)
        {
            transfer->bytes->setKept(true);
        }
        if (!upload->unreported)
        {
            upload->unreported = failure;
        }
    }
    else
    {
        transfer->state = Transfer::State::Dropped; // a newer transfer replaces it
        transfer->bytes.reset();
    }
    finish(upload, index, lock);
}

std::string UploadPipeline::perform(const Upload& upload, Transfer& transfer)
{
    if (!transfer.bytes)
    {
        return m_inner.copyPart(upload.key, upload.id, transfer.part);
    }
    boost::iostreams::stream_buffer<boost::iostreams::basic_array_source<char>> memory(
        transfer.bytes->data(), transfer.part.Size);
    std::istream content(&memory);
    return m_inner.uploadPart(upload.key, upload.id, transfer.part, content);
}

/// Record that the transfer of the part has ended, and start the next one if there is one.
void UploadPipeline::finish(const UploadPtr& upload, std::size_t index, const Lock&)
{
    upload->running.erase(index);
    --upload->unfinished;
    if (const TransferPtr next = newest(*upload, index); next && next->state == Transfer::State::Waiting)
    {
        post(upload, next);
    }
    m_changed.notify_all();
}

/// Drop a transfer that has not started or has failed. In other states it stays unchanged.
void UploadPipeline::drop(Upload& upload, Transfer& transfer, const Lock&)
{
    const bool wasWaiting = transfer.state == Transfer::State::Waiting;
    if (wasWaiting || transfer.state == Transfer::State::Failed)
    {
        transfer.state = Transfer::State::Dropped;
        transfer.bytes.reset();
        upload.unfinished -= wasWaiting ? 1 : 0;
        m_changed.notify_all();
    }
}

/// Drop all transfers except those that are running or stored.
void UploadPipeline::dropUnstored(Upload& upload, const Lock& lock)
{
    for (const auto& [index, transfer] : upload.parts)
    {
        drop(upload, *transfer, lock);
    }
}

void UploadPipeline::waitUntilIdle(const Upload& upload, Lock& lock)
{
    m_changed.wait(lock, [&] { return upload.unfinished == 0; });
}

/// Retry the listed parts that failed, and wait until no transfer of the upload is left.
void UploadPipeline::retryFailed(const UploadPtr& upload, const std::vector<PartInfo>& parts, Lock& lock)
{
    for (const PartInfo& part : parts)
    {
        const TransferPtr transfer = newest(*upload, part.Index);
        if (transfer && transfer->tag == part.Tag && transfer->state == Transfer::State::Failed)
        {
            post(upload, transfer);
            if (transfer->bytes)
            {
                transfer->bytes->setKept(false);
            }
            transfer->state = Transfer::State::Waiting;
            ++upload->unfinished;
        }
    }
    waitUntilIdle(*upload, lock);
}

/// The store's tag of a part that is listed with a provisional tag. Throws the failure if the part was not stored.
std::string UploadPipeline::storedTag(const Upload& upload, const PartInfo& part, const Lock&) const
{
    const TransferPtr transfer = newest(upload, part.Index);
    if (!transfer || transfer->tag != part.Tag)
    {
        throw UnknownErrorException("Invalid parts",
            fmt::format("completing the upload of {}: part {} is listed with the tag {}, which is not the tag of its "
                        "last upload",
                quoted(upload.key), part.Index, quoted(part.Tag)));
    }
    if (transfer->state == Transfer::State::Failed)
    {
        std::rethrow_exception(transfer->failure);
    }
    if (transfer->state == Transfer::State::Dropped)
    {
        throw UnknownErrorException(
            "Invalid parts", fmt::format("completing the upload of {}: part {} was dropped by an abort that failed",
                                 quoted(upload.key), part.Index));
    }
    return transfer->innerTag;
}

/// The newest transfer of a part; null: the part was sent on a caller's thread, or not at all.
UploadPipeline::TransferPtr UploadPipeline::newest(const Upload& upload, std::size_t index) const
{
    const auto part = upload.parts.find(index);
    return part == upload.parts.end() ? nullptr : part->second;
}

/// The tag to pass to the inner client when an upload is opened with this tag.
std::string UploadPipeline::baseTag(const std::string& tag)
{
    if (!m_tags.isProvisional(tag))
    {
        return tag;
    }
    Lock lock(m_mutex);
    for (const auto& [address, upload] : m_uploads)
    {
        const auto part = std::find_if(upload->parts.begin(), upload->parts.end(),
            [&](const auto& candidate) { return candidate.second->tag == tag; });
        if (part != upload->parts.end())
        {
            const TransferPtr transfer = part->second;
            m_changed.wait(lock, [&]
                { return transfer->state != Transfer::State::Waiting && transfer->state != Transfer::State::Running; });
            return transfer->innerTag;
        }
    }
    return m_tags.find(tag).value_or("");
}

/// The tag to pass to the inner client when a part with this tag is copied.
std::string UploadPipeline::sourceTag(const std::string& tag)
{
    if (!m_tags.isProvisional(tag))
    {
        return tag;
    }
    const std::lock_guard lock(m_mutex);
    const std::optional<std::string> inner = m_tags.find(tag);
    if (!inner)
    {
        throw UnknownErrorException("Part cannot be copied",
            fmt::format("no stored part with the tag {} is known; reopen the file", quoted(tag)));
    }
    return *inner;
}

/// Forget an upload that has ended, but remember the tags of its stored parts.
void UploadPipeline::end(Upload& upload)
{
    const Lock lock(m_mutex);
    dropUnstored(upload, lock);
    for (const auto& [index, transfer] : upload.parts)
    {
        if (transfer->state == Transfer::State::Stored)
        {
            m_tags.remember(transfer->tag, transfer->innerTag);
        }
    }
    upload.parts.clear();
    m_uploads.erase({upload.key, upload.id});
}

} // namespace storage::clients
