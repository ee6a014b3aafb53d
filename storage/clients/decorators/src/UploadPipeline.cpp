#include "UploadPipeline.hpp"

#include <storage/clients/common/Content.hpp>
#include <storage/clients/common/KeyRules.hpp>
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

std::string textOfCurrentException()
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
        return "what was thrown is no exception";
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
    const auto open = m_uploads; // no lock: no call is under way, and no thread of ours touches the map
    for (const auto& [address, upload] : open)
    {
        try
        {
            abort(upload->key, upload->id);
        }
        catch (...)
        {
            getLogger().write(foundation::log::severity::error,
                fmt::format("An upload of {} stays open: {}", quoted(upload->key), textOfCurrentException()));
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
        return transferHere(upload, part.Index, [&] { return m_inner.uploadPart(key, id, part, content); });
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
        return transferHere(upload, part.Index, [&] { return m_inner.copyPart(key, id, source); });
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
        dropUnstored(*upload, lock); // what has failed meanwhile; should the abort fail, nobody may ask for it any more
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
        upload->unreported = nullptr; // what still counts of it is thrown now
        for (PartInfo& part : stored)
        {
            part.Tag = m_tags.isOwn(part.Tag) ? storedTag(*upload, part, lock) : part.Tag;
        }
    }
    m_inner.completeMultipartUpload(key, id, stored);
    end(*upload);
}

/// @return null: the upload was not begun here, or has ended
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

/// Transfer a part on the caller's thread. Its tag is that of the client below, as there is nothing to wait for. If it
/// fails, an earlier transfer of the part stands.
template <typename Call>
std::string UploadPipeline::transferHere(const UploadPtr& upload, std::size_t index, Call call)
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
    post(upload, transfer); // it begins when the lock is gone
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
            transfer->bytes->setParked(true);
        }
        if (!upload->unreported)
        {
            upload->unreported = failure;
        }
    }
    else
    {
        transfer->state = Transfer::State::Dropped; // a later one counts
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

/// Note that nothing is under way for the part any longer, and let one begin that has waited for this.
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

/// Forget a transfer that has not begun or has failed; others stay what they are.
void UploadPipeline::drop(Upload& upload, Transfer& transfer, const Lock&)
{
    const bool isWaiting = transfer.state == Transfer::State::Waiting;
    if (isWaiting || transfer.state == Transfer::State::Failed)
    {
        transfer.state = Transfer::State::Dropped;
        transfer.bytes.reset();
        upload.unfinished -= isWaiting ? 1 : 0;
        m_changed.notify_all();
    }
}

/// Forget all transfers but those that run or have been stored.
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

/// Transfer listed parts that failed once more, and wait for them.
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
                transfer->bytes->setParked(false);
            }
            transfer->state = Transfer::State::Waiting;
            ++upload->unfinished;
        }
    }
    waitUntilIdle(*upload, lock);
}

/// The real tag of a part that is listed with one of ours. Throws why the part could not be stored, if it could not.
std::string UploadPipeline::storedTag(const Upload& upload, const PartInfo& part, const Lock&) const
{
    const TransferPtr transfer = newest(upload, part.Index);
    if (!transfer || transfer->tag != part.Tag)
    {
        throw UnknownErrorException("Invalid parts",
            fmt::format("completing the upload of {}: part {} is listed with the tag {}, which is not the one of its "
                        "last upload",
                quoted(upload.key), part.Index, quoted(part.Tag)));
    }
    if (transfer->state == Transfer::State::Failed)
    {
        std::rethrow_exception(transfer->failure);
    }
    if (transfer->state == Transfer::State::Dropped)
    {
        throw UnknownErrorException("Invalid parts",
            fmt::format("completing the upload of {}: part {} was dropped by an abort, which then failed",
                quoted(upload.key), part.Index));
    }
    return transfer->innerTag;
}

/// The transfer that decides about a part; null: it was sent on a caller's thread, or not at all.
UploadPipeline::TransferPtr UploadPipeline::newest(const Upload& upload, std::size_t index) const
{
    const auto part = upload.parts.find(index);
    return part == upload.parts.end() ? nullptr : part->second;
}

/// What the client below is told when an upload is opened with this tag.
std::string UploadPipeline::baseTag(const std::string& tag)
{
    if (!m_tags.isOwn(tag))
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

/// What the client below is told when a part with this tag is to be copied.
std::string UploadPipeline::sourceTag(const std::string& tag)
{
    if (!m_tags.isOwn(tag))
    {
        return tag;
    }
    const std::lock_guard lock(m_mutex);
    const std::optional<std::string> inner = m_tags.find(tag);
    if (!inner)
    {
        throw UnknownErrorException("Part cannot be copied",
            fmt::format("the tag {} is of no part that is known to be stored; open the file anew", quoted(tag)));
    }
    return *inner;
}

/// Forget an upload that has ended, but not the tags of its parts.
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
