#include "Uploads.hpp"

#include "FirstFailure.hpp"
#include "SourceBody.hpp"

#include <storage/clients/common/Content.hpp>
#include <storage/clients/common/KeyRules.hpp>
#include <storage/clients/common/PartRules.hpp>
#include <storage/clients/common/TransientException.hpp>
#include <storage/clients/remote/RemoteFailures.hpp>
#include <storage/cloudprovider/CloudExceptions.hpp>
#include <storage/cloudprovider/Logger.hpp>

#include <foundation/log/Severity.hpp>

#include <boost/iostreams/device/array.hpp>
#include <boost/iostreams/stream.hpp>
#include <fmt/format.h>

#include <algorithm>
#include <cstring>
#include <string_view>
#include <type_traits>
#include <utility>

namespace storage::clients
{

using namespace cloudprovider;

namespace
{

[[noreturn]] void throwObjectChanged(Operation operation, const std::string& key)
{
    throw UnknownErrorException(
        "Object changed", fmt::format("{} of {} failed: somebody has changed or removed the object since it was opened",
                              name(operation), quoted(key)));
}

[[noreturn]] void throwOutcomeUnknown(const std::string& key)
{
    throw UnknownErrorException("Outcome unknown",
        fmt::format("{} of {} failed: the response was lost, the upload no longer exists, and the object under the key "
                    "is not the expected one or cannot be looked up; the upload may have been aborted, the object may "
                    "have been replaced, or "
                    "the store uses tags of its own",
            name(Operation::CompleteMultipartUpload), quoted(key)));
}

/// Bytes of an upload, until its transfer is cancelled.
class CancellableBody : public SpanBody
{
public:
    /// @param first  of the group that is sent
    CancellableBody(const Upload& upload, std::size_t first, std::vector<std::string_view> pieces)
        : SpanBody(std::move(pieces))
        , m_upload(upload)
        , m_first(first)
    {
    }

    /// When all bytes have been read, the store may have the part, so its response is waited for.
    std::size_t read(char* target, std::size_t capacity) override
    {
        const std::size_t count = SpanBody::read(target, capacity);
        count > 0 ? throwIfCancelled() : void();
        return count;
    }

    void forEachPiece(const std::function<void(std::string_view)>& use) override
    {
        SpanBody::forEachPiece(
            [&](std::string_view piece)
            {
                for (; !piece.empty(); piece.remove_prefix(std::min(piece.size(), pieceSize)))
                {
                    throwIfCancelled();
                    use(piece.substr(0, pieceSize));
                }
            });
    }

private:
    static constexpr std::size_t pieceSize = 1 << 20;

    void throwIfCancelled() const
    {
        if (m_upload.isCancelled(m_first))
        {
            throw UnknownErrorException(
                "Dropped", "a part of " + quoted(m_upload.key()) + " was to be replaced, or its upload to be aborted");
        }
    }

    const Upload& m_upload;
    const std::size_t m_first;
};

/// A part without a tag could not be listed in the completion.
std::string requireTag(const std::string& key, std::string tag)
{
    if (tag.empty())
    {
        throw UnusableResponse("Malformed response", "the store gave no tag to a part of " + quoted(key));
    }
    return tag;
}

/// Ask the store what became of a completion. @return nothing: it does not tell, for example for lack of a permission,
/// which must not replace the failure of the completion. A TransientException passes: the completion is tried again.
template <typename Ask>
std::optional<std::invoke_result_t<Ask>> answerOf(const Ask& ask)
{
    try
    {
        return ask();
    }
    catch (const TransientException&)
    {
        throw;
    }
    catch (const CloudException&)
    {
        return std::nullopt;
    }
}

/// Keep the bytes of a part that could not be sent. @return their position; nullopt: there is no space
std::optional<std::uint64_t> spool(Upload& upload, std::string_view bytes) noexcept
{
    try
    {
        const PartSpool::Space space = upload.spool().allocate(bytes.size());
        std::memcpy(space.bytes.data(), bytes.data(), bytes.size());
        return space.position;
    }
    catch (...) // the failure to send is the one to report
    {
        return std::nullopt;
    }
}

} // namespace

Retry::Request Uploads::request(Operation operation, Upload& upload, std::uint64_t bytes, std::size_t number)
{
    return {operation, upload.key(), &upload.outage(), bytes, number};
}

std::string Uploads::create(const std::string& key, const std::string& tag)
{
    return m_registry.begin(key, tag, key);
}

std::string Uploads::openAtStore(Upload& upload)
{
    return upload.ensureStoreId(
        [&]
        {
            auto metadata = upload.metadata();
            if (!metadata)
            {
                auto before = m_pins.pinned(upload.key());
                if (!before && !upload.isNew()) // too many others were opened since
                {
                    const auto stored = m_reader.find(request(Operation::CreateMultipartUpload, upload));
                    before = stored ? std::optional(stored->version) : std::nullopt;
                }
                metadata = m_metadata.after(before, m_required.find(upload.key()), upload.key());
                upload.setMetadata(metadata);
            }
            return m_retry.run(request(Operation::CreateMultipartUpload, upload),
                [&] { return m_store.createUpload(upload.key(), *metadata); });
        });
}

std::string Uploads::sendBody(Upload& upload, std::size_t number, RequestBody& body)
{
    const std::string storeId = openAtStore(upload);
    return m_retry.run(request(Operation::UploadPart, upload, body.size(), number),
        [&] { return requireTag(upload.key(), m_store.uploadPart(upload.key(), storeId, number, body)); });
}

std::string Uploads::send(const std::string& key, const std::string& id, const PartInfo& part, std::istream& content)
{
    const auto upload = m_registry.find(key, id);
    checkKey(key); // not when the upload is created, because a close might hide that failure
    const StoreAbilities store = m_store.abilities(key);
    const bool isWhole = part.Size >= store.minPartSize && part.Size <= store.maxPartSize;
    if (isWhole && upload->isNew() && store.equalParts && part.Index >= store.maxParts)
    {
        throw UnknownErrorException("Too many parts",
            fmt::format("{} cannot have a part {}: the store accepts at most {} parts; write it in larger parts",
                quoted(key), part.Index + 1, store.maxParts));
    }
    if (part.Size > store.maxObjectSize || part.Offset > store.maxObjectSize - part.Size)
    {
        throw UnknownErrorException("Too large", fmt::format("{} cannot have {} bytes: the store accepts at most {}",
                                                     quoted(key), part.Offset + part.Size, store.maxObjectSize));
    }
    const PartGroup group = isWhole ? upload->groupOf(part, store) : PartGroup();
    const bool isSingle = group.number != 0 && group.count == 1;
    // With more of them in the queue, those of other files would wait behind them.
    const std::size_t maxSending = std::max<std::size_t>(m_pool.maxThreads(), 1);
    const auto bytes = isSingle ? std::make_shared<PartBytes>(m_memory, part.Size) : nullptr;
    if (const auto failure = upload->outage().failure(m_retry.now()))
    {
        std::rethrow_exception(failure);
    }
    upload->reportFailure();
    if (bytes)
    {
        readContent(key, content, bytes->data(), part.Size);
        if (const auto begun = upload->beginSending(part, group, bytes, store, maxSending))
        {
            sendLater({upload, group, begun->generation}, bytes->isInMemory());
            return begun->tag;
        }
    }
    const bool isFirstTime = !upload->part(part.Index);
    std::string tag = spoolPart(*upload, part,
        [&](char* target) {
            bytes ? void(std::memcpy(target, bytes->data(), part.Size)) : readContent(key, content, target, part.Size);
        });
    // A group in which a part is written again is left to the completion, as it may be rewritten part by part.
    if (group.count > 1 && isFirstTime)
    {
        if (const auto generation = upload->beginSendingSpooled(group, store, maxSending))
        {
            sendLater({upload, group, *generation}, true);
        }
    }
    return tag;
}

std::string Uploads::spoolPart(Upload& upload, const PartInfo& part, const std::function<void(char* target)>& write)
{
    const PartSpool::Space space = upload.spool().allocate(part.Size);
    try
    {
        write(space.bytes.data());
        return upload.setPart(part.Index,
            {.place = PartPlace::Spooled, .size = part.Size, .offset = part.Offset, .spooled = space.position});
    }
    catch (...)
    {
        upload.spool().free(space.position, part.Size);
        throw;
    }
}

/// @param isConcurrent  false: send on this thread
void Uploads::sendLater(const Transfer& transfer, bool isConcurrent)
{
    try
    {
        isConcurrent ? m_pool.post([this, transfer] { send(transfer); }) : send(transfer);
    }
    catch (...) // no memory
    {
        if (transfer.upload->startSending(transfer.group.first, transfer.generation))
        {
            transfer.upload->setFailed(transfer.group.first, std::current_exception(), std::nullopt);
        }
        throw;
    }
}

void Uploads::send(const Transfer& transfer)
{
    Upload& upload = *transfer.upload;
    const std::size_t first = transfer.group.first;
    auto bytes = upload.startSending(first, transfer.generation);
    if (!bytes)
    {
        return;
    }
    std::string tag;
    std::exception_ptr failure;
    std::optional<std::uint64_t> spooled;
    try
    {
        MappedPart mapped =
            *bytes ? MappedPart{{}, {(*bytes)->view()}} : map(upload, upload.spooledPart(transfer.group), {});
        CancellableBody body(upload, first, std::move(mapped.pieces));
        tag = sendBody(upload, transfer.group.number, body);
    }
    catch (...)
    {
        failure = std::current_exception();
        spooled = *bytes && !upload.isCancelled(first) ? spool(upload, (*bytes)->view()) : std::nullopt;
    }
    bytes.reset(); // before another part takes its turn, which may then use the buffer
    failure ? upload.setFailed(first, failure, spooled) : upload.setSent(first, std::move(tag));
}

std::string Uploads::copy(const std::string& key, const std::string& id, const PartInfo& part)
{
    const auto upload = m_registry.find(key, id);
    upload->reportFailure();
    const Version source = requireSource(part, *upload);
    return upload->setPart(
        part.Index, {.place = PartPlace::Object, .size = part.Size, .offset = part.Offset, .source = source});
}

/// @return the stored version that the part is copied from
Version Uploads::requireSource(const PartInfo& part, Upload& upload)
{
    const auto wanted = m_registry.versionOf(part.Tag);
    if (!wanted)
    {
        throwObjectChanged(Operation::CopyPart, upload.key());
    }
    std::optional<Version> stored = m_pins.pinned(upload.key());
    if (!stored || (!wanted->empty() && stored->tag != *wanted))
    {
        const auto object = m_reader.find(request(Operation::GetObjectInfo, upload));
        if (!object)
        {
            throw ResourceNotFoundException(fmt::format(
                "{} of {} failed: there is no such object", name(Operation::CopyPart), quoted(upload.key())));
        }
        stored = object->version;
    }
    if (!wanted->empty() && stored->tag != *wanted)
    {
        throwObjectChanged(Operation::CopyPart, upload.key());
    }
    if (part.Offset > stored->size || part.Size > stored->size - part.Offset)
    {
        throw UnknownErrorException("Invalid range",
            fmt::format("{} of {} failed: bytes {} to {} end beyond the object of {} bytes", name(Operation::CopyPart),
                quoted(upload.key()), part.Offset, part.Offset + part.Size, stored->size));
    }
    return *stored;
}

void Uploads::abort(const std::string& key, const std::string& id)
{
    if (!m_registry.isOwn(id))
    {
        abortForeign(key, id);
        return;
    }
    const auto upload = m_registry.find(key, id);
    upload->outage().setAborting(true);
    try
    {
        upload->dropUnsent();
        abortOwn(*upload);
    }
    catch (...)
    {
        upload->outage().setAborting(false);
        throw;
    }
    m_registry.finish(id, upload->base());
}

void Uploads::abortOwn(Upload& upload)
{
    const std::string storeId = upload.storeId();
    if (storeId.empty())
    {
        return;
    }
    try
    {
        m_retry.run(
            request(Operation::AbortMultipartUpload, upload), [&] { m_store.abortUpload(upload.key(), storeId); });
    }
    catch (const ResourceNotFoundException&) // an upload that no longer exists counts as aborted
    {
    }
}

void Uploads::abortForeign(const std::string& key, const std::string& storeId)
{
    if (key.empty() || storeId.empty()) // with one of them empty it would be another request
    {
        throw ResourceNotFoundException("no upload " + quoted(storeId) + " of " + quoted(key) + " is open");
    }
    // @return whether the set has changed
    const auto setUnconfirmed = [&](bool isUnconfirmed)
    {
        const std::lock_guard lock(m_mutex);
        return isUnconfirmed ? m_unconfirmedAborts.insert(storeId).second : m_unconfirmedAborts.erase(storeId) != 0;
    };
    m_retry.run({Operation::AbortMultipartUpload, key},
        [&]
        {
            try
            {
                m_store.abortUpload(key, storeId);
                setUnconfirmed(false);
            }
            catch (const ResourceNotFoundException&)
            {
                if (!setUnconfirmed(false))
                {
                    throw;
                }
            }
            catch (const TransientException&)
            {
                setUnconfirmed(true);
                throw;
            }
        });
}

void Uploads::abortAll() noexcept
try
{
    for (const UploadPtr& upload : m_registry.open())
    {
        if (!tryToAbort(*upload))
        {
            return;
        }
    }
}
catch (...) // no memory
{
}

/// Abort an upload of this client, or log why not. @return false: another one would take as long to fail
bool Uploads::tryToAbort(const Upload& upload) noexcept
try
{
    try
    {
        abort(upload.key(), upload.id());
    }
    catch (const CloudException& failure)
    {
        getLogger().write(
            foundation::log::severity::error, fmt::format("Aborting an upload of {} failed; it stays open: {}",
                                                  quoted(upload.key()), failure.detail().value_or(failure.what())));
        return dynamic_cast<const TransientException*>(&failure) == nullptr;
    }
    return true;
}
catch (...) // no memory, even for a message
{
    return false;
}

void Uploads::copyObject(const CopySource& source, const std::string& target, std::uint64_t rangeSize)
{
    checkKey(target);
    const auto upload = m_registry.find(target, m_registry.begin(target, "", source.key));
    upload->setMetadata(std::make_shared<const WrittenMetadata>(WrittenMetadata{*source.version.metadata, source.key}));
    completeWhole(upload, source.version.size, rangeSize, {.place = PartPlace::Object, .source = source.version});
}

void Uploads::storeObject(const std::string& key, const ObjectUploader::Source& source)
{
    checkKey(key);
    const StoreAbilities store = m_store.abilities(key);
    const auto upload = m_registry.find(key, m_registry.begin(key, "", key));
    upload->setSource(&source);
    // Twice the minimum: half the requests. But what a store copies in whole parts only, it also changes in whole
    // parts.
    const std::uint64_t wanted = store.takesWholeParts ? store.minPartSize : 2 * store.minPartSize;
    const std::uint64_t partSize = std::max(wanted, (source.size + store.maxParts - 1) / store.maxParts);
    try
    {
        completeWhole(upload, source.size, partSize, {.place = PartPlace::Source});
    }
    catch (const TransientException&)
    {
        // The store may have refused bytes that have changed since they were hashed.
        upload->isOutcomeUnknown() ? void() : source.check();
        throw;
    }
}

void Uploads::storeStream(const std::string& key, std::string_view part, const std::function<std::string_view()>& next)
{
    const std::string id = create(key, "");
    const auto upload = m_registry.find(key, id);
    try
    {
        std::vector<PartInfo> parts;
        const std::size_t size = part.size();
        bool isLast = false;
        for (std::uint64_t offset = 0; !part.empty(); part = isLast ? std::string_view() : next())
        {
            isLast = part.size() < size; // a terminal could be read again behind the end of the input
            boost::iostreams::stream<boost::iostreams::array_source> content(part.data(), part.size());
            parts.push_back({parts.size(), offset, part.size(), ""});
            parts.back().Tag = send(key, id, parts.back(), content);
            offset += part.size();
        }
        complete(key, id, parts);
    }
    catch (...)
    {
        tryToAbort(*upload);
        throw;
    }
}

/// Complete an upload whose parts are all in one place, one after the other. Abort it after a failure.
/// @param part  what the parts have in common
void Uploads::completeWhole(const UploadPtr& upload, std::uint64_t size, std::uint64_t partSize, Upload::Part part)
{
    try
    {
        std::vector<PartInfo> parts;
        for (std::uint64_t offset = 0; offset < size; offset += partSize)
        {
            part.offset = offset;
            part.size = std::min(partSize, size - offset);
            std::string tag = upload->setPart(parts.size(), part);
            parts.push_back({parts.size(), offset, part.size, std::move(tag)});
        }
        complete(upload->key(), upload->id(), parts);
    }
    catch (...)
    {
        tryToAbort(*upload);
        throw;
    }
}

void Uploads::complete(const std::string& key, const std::string& id, const std::vector<PartInfo>& parts)
{
    const auto upload = m_registry.find(key, id);
    try
    {
        m_registry.finish(id, assembleObject(*upload, parts));
    }
    catch (const TransientException&)
    {
        upload->waitUntilIdle(); // the parts that are on the way probably fail, too, for the reason that is thrown
        upload->forgetUnreported();
        throw;
    }
    catch (...)
    {
        upload->forgetUnreported();
        if (!upload->isOutcomeUnknown()) // otherwise the tags of the parts tell whether the new object was stored
        {
            upload->forgetDone(); // the parts may be of another version than the one that a retry will find
        }
        throw;
    }
}

/// @return the new object's tag
std::string Uploads::assembleObject(Upload& upload, const std::vector<PartInfo>& parts)
{
    Completion completion = prepare(upload, parts);
    for (;;)
    {
        try
        {
            transferParts(upload, completion);
            upload.waitUntilIdle();
            if (const auto tags = tagsOf(upload, completion))
            {
                return replaceObject(upload, completion, *tags);
            }
        }
        catch (const UnsupportedOperationException&)
        {
            upload.forgetSourceEnds(); // they may depend on what the store cannot do
            if (!hasOtherPlan(upload, parts, completion.plan))
            {
                throw;
            }
        }
        // A part that was on the way has failed and is in the spool now, or the store has shown what it cannot do.
        completion = prepare(upload, parts);
    }
}

/// Whether there is another plan for these parts now. False: also if there is none because bytes are not here any more.
bool Uploads::hasOtherPlan(Upload& upload, const std::vector<PartInfo>& parts, const UploadPlan& plan)
{
    try
    {
        return prepare(upload, parts).plan != plan;
    }
    catch (const UnsupportedOperationException&)
    {
        return false;
    }
}

/// @return the new object's tag
std::string Uploads::replaceObject(Upload& upload, const Completion& completion, const std::vector<NumberedTag>& parts)
{
    // Not before the transfers: they may take minutes and change no object, and a read that finds another version
    // waits.
    VersionPins::Write write(m_pins, upload.key());
    upload.source() != nullptr ? upload.source()->check() : void();
    std::string tag = m_retry.run(
        request(Operation::CompleteMultipartUpload, upload), [&] { return finish(upload, completion, parts); });
    if (!tag.empty())
    {
        write.succeeded({tag, completion.plan.size, fieldsOf(upload.metadata())});
    }
    return tag;
}

Uploads::Completion Uploads::prepare(Upload& upload, const std::vector<PartInfo>& parts)
{
    checkPartList(upload.key(), parts,
        [&](std::size_t index) -> std::optional<SentPart>
        {
            const auto part = upload.part(index);
            return part ? std::optional(SentPart{upload.tagOf(index, *part), part->size}) : std::nullopt;
        });
    Completion completion;
    std::vector<FilePart> file;
    const StoreAbilities store = m_store.abilities(upload.sourceKey());
    for (std::size_t i = 0; i < parts.size();)
    {
        const std::size_t index = parts[i].Index;
        const Upload::Part part = upload.part(index).value();
        if (part.failure)
        {
            std::rethrow_exception(part.failure);
        }
        FilePart planned{index, part.place, part.size, part.offset, part.group.number};
        const PartGroup& group = part.group;
        const std::size_t end = i + group.count; // of its group in the list
        ++i;
        if (group.number != 0 && group.first == index && end <= parts.size() &&
            parts[end - 1].Index + 1 == group.end() && (group.count == 1 || !store.equalParts))
        {
            planned.place = PartPlace::Uploaded;
            completion.kept.emplace(group.number, index);
            for (; i < end; ++i)
            {
                planned.size += upload.part(parts[i].Index).value().size;
            }
        }
        else if (part.place == PartPlace::Object)
        {
            if (!completion.source.tag.empty() && completion.source.tag != part.source.tag)
            {
                throwObjectChanged(Operation::CompleteMultipartUpload, upload.key());
            }
            completion.source = part.source;
        }
        file.push_back(planned);
    }
    if (upload.isSendingOthers(completion.kept)) // they would write the plan's numbers at the same time
    {
        upload.waitUntilIdle();
        return prepare(upload, parts);
    }
    std::vector<std::uint64_t> ends;
    if (store.takesWholeParts && !completion.source.tag.empty() && upload.sourceKey() == upload.key())
    {
        // Not again for a retry: the object may have been replaced by this upload meanwhile.
        ends = upload.sourceEnds(completion.source,
            [&]
            {
                return m_retry.run(request(Operation::GetObjectParts, upload),
                    [&] { return m_store.partEnds(upload.key(), completion.source); });
            });
    }
    completion.plan = planUpload(file, store, ends);
    std::string replaces = upload.sourceKey() == upload.key() ? completion.source.tag : "";
    if (replaces.empty() && !upload.base().empty())
    {
        // A version that this process has written since the file was opened may be replaced.
        const auto current = m_pins.pinned(upload.key());
        const bool isOurs = current && m_pins.descends(upload.key(), current->tag, upload.base());
        replaces = isOurs ? current->tag : upload.base();
    }
    completion.replaces = m_required.find(upload.key());
    if (completion.replaces && !replaces.empty() && replaces != *completion.replaces)
    {
        throwOtherVersion(upload.key(), *completion.replaces);
    }
    if (!completion.replaces && !replaces.empty())
    {
        completion.replaces = replaces;
    }
    return completion;
}

/// Copy and send the parts that are not sent yet. The first failure ends all of them.
void Uploads::transferParts(Upload& upload, const Completion& completion)
{
    FirstFailure failure(upload.outage());
    const auto transfer = [&](const PlannedPart& part)
    {
        try
        {
            failure.isThere() ? void() : upload.recordDone(part, transferPart(upload, part, completion.source));
        }
        catch (...)
        {
            failure.keep();
        }
    };
    std::vector<const PlannedPart*> missing;
    for (const PlannedPart& part : completion.plan.parts)
    {
        if (part.how != PlannedPart::How::Keep && !upload.doneTag(part))
        {
            missing.push_back(&part);
        }
    }
    m_pool.run(missing.size(), [&](std::size_t index) { transfer(*missing[index]); });
    failure.throwIfThere();
}

/// @return the store's tag
std::string Uploads::transferPart(Upload& upload, const PlannedPart& part, const Version& source)
{
    if (part.how == PlannedPart::How::Copy || part.how == PlannedPart::How::Take)
    {
        const std::string storeId = openAtStore(upload);
        const ByteRange range{part.bytes.front().offset, part.size};
        return m_retry.run(request(Operation::CopyPart, upload, part.size, part.number),
            [&]
            {
                return requireTag(upload.key(),
                    part.how == PlannedPart::How::Take
                        ? m_store.takeWholeParts(upload.key(), storeId, part.number, source, range)
                        : m_store.takePart(upload.key(), storeId, part.number, {upload.sourceKey(), source}, range));
            });
    }
    if (!part.bytes.empty() && part.bytes.front().place == PartPlace::Source) // one range, as these have no neighbours
    {
        SourceBody body(*upload.source(), part.bytes.front().offset, part.size);
        return sendBody(upload, part.number, body);
    }
    MappedPart bytes = map(upload, part, source);
    SpanBody body(std::move(bytes.pieces));
    return sendBody(upload, part.number, body);
}

/// Map what a part consists of. Bytes of the stored object are read first.
Uploads::MappedPart Uploads::map(Upload& upload, const PlannedPart& part, const Version& source)
{
    std::vector<PlannedBytes> ranges; // with offsets in the spool, or in the object
    for (PlannedBytes bytes : part.bytes)
    {
        bytes.offset += bytes.place == PartPlace::Spooled ? upload.part(bytes.index).value().spooled : 0;
        if (!ranges.empty() && ranges.back().place == bytes.place &&
            ranges.back().offset + ranges.back().size == bytes.offset)
        {
            ranges.back().size += bytes.size; // the number of mappings of a process is limited
        }
        else
        {
            ranges.push_back(bytes);
        }
    }
    MappedPart mapped;
    for (const PlannedBytes& range : ranges)
    {
        const bool isSpooled = range.place == PartPlace::Spooled;
        mapped.mappings.push_back(
            isSpooled ? upload.spool().map(range.offset, range.size) : PartSpool::scratch(range.size));
        char* const data = mapped.mappings.back().data();
        if (!isSpooled)
        {
            m_reader.readVersion({Operation::GetObjectRange, upload.sourceKey(), &upload.outage()}, data,
                {range.offset, range.size}, source);
        }
        mapped.pieces.emplace_back(data, range.size);
    }
    return mapped;
}

/// @return the tags of all parts; nullopt: a part that was to be kept could not be sent
std::optional<std::vector<NumberedTag>> Uploads::tagsOf(const Upload& upload, const Completion& completion) const
{
    std::vector<NumberedTag> tags;
    for (const PlannedPart& planned : completion.plan.parts)
    {
        const auto tag = planned.how == PlannedPart::How::Keep ? upload.storeTag(completion.kept.at(planned.number))
                                                               : upload.doneTag(planned).value_or("");
        if (tag.empty())
        {
            return std::nullopt;
        }
        tags.emplace_back(planned.number, tag);
    }
    return tags;
}

/// Make one attempt to complete the upload. @return the new object's tag
std::string Uploads::finish(Upload& upload, const Completion& completion, const std::vector<NumberedTag>& parts)
{
    const std::string& key = upload.key();
    const auto isDone = [&](const std::optional<StoredObject>& stored)
    {
        const auto isMade = [&] { return m_store.isMadeOf(key, *stored, upload.storeId(), parts); };
        return upload.isOutcomeUnknown() && stored && answerOf(isMade).value_or(false);
    };

    const StoreAbilities store = m_store.abilities(key);
    const bool mustCreate = completion.replaces && completion.replaces->empty();
    const bool isUnverified = completion.plan.hasCopies && !store.conditionalTakes;
    const bool copiesItself = upload.sourceKey() == key;
    if (isUnverified && !copiesItself && !upload.isOutcomeUnknown()) // after the last copy, as below
    {
        const auto source = m_store.findObject(upload.sourceKey());
        if (!source || source->version.tag != completion.source.tag)
        {
            throwObjectChanged(Operation::CopyPart, upload.sourceKey());
        }
    }
    const bool needsLookup =
        mustCreate ? !store.conditionalCreation
                   : completion.replaces && ((isUnverified && copiesItself) || !store.conditionalCompletion);
    if (upload.isOutcomeUnknown() || needsLookup)
    {
        // After the last copy: if the object is still this version, all copies came from it.
        const auto find = [&] { return m_store.findObject(key); };
        const auto found = needsLookup ? std::optional(find()) : answerOf(find);
        const auto stored = found.value_or(std::nullopt);
        if (isDone(stored))
        {
            return stored->version.tag;
        }
        if (found && completion.replaces && *completion.replaces != (stored ? stored->version.tag : ""))
        {
            // No completion has taken effect while the upload is open: the object is somebody else's.
            if (upload.isOutcomeUnknown() && !isOpenAtStore(upload).value_or(false))
            {
                throwOutcomeUnknown(key);
            }
            mustCreate ? throwOtherVersion(key, "") : throwObjectChanged(Operation::CompleteMultipartUpload, key);
        }
    }
    try
    {
        return m_store.completeUpload(key, upload.storeId(), parts, completion.replaces);
    }
    catch (const TransientException&)
    {
        upload.setOutcomeUnknown();
        // Look up the upload before the object: the store removes the upload after it has stored the object.
        if (isOpenAtStore(upload).value_or(true))
        {
            throw;
        }
    }
    catch (const ResourceNotFoundException&)
    {
        upload.setOutcomeUnknown();
    }
    catch (const UnknownErrorException& failure)
    {
        // A request that was sent twice may have been refused because the first one has succeeded.
        const auto* const refusal = dynamic_cast<const PreconditionFailed*>(&failure);
        const bool isThere = mustCreate && refusal != nullptr;
        const bool mayBeDone = upload.isOutcomeUnknown() || (refusal != nullptr && refusal->wasSentTwice());
        if (!isThere || mayBeDone)
        {
            upload.setOutcomeUnknown();
        }
        const auto stored = answerOf([&] { return m_store.findObject(key); }).value_or(std::nullopt);
        if (isDone(stored))
        {
            return stored->version.tag;
        }
        if (mayBeDone && !isOpenAtStore(upload).value_or(true))
        {
            throwOutcomeUnknown(key);
        }
        isThere ? throwOtherVersion(key, "") : throw;
    }
    const auto stored = answerOf([&] { return m_store.findObject(key); }).value_or(std::nullopt);
    isDone(stored) ? void() : throwOutcomeUnknown(key);
    return stored->version.tag;
}

/// Whether the upload still exists; nothing when the store does not tell.
std::optional<bool> Uploads::isOpenAtStore(const Upload& upload)
{
    return answerOf([&] { return m_store.isOpen(upload.key(), upload.storeId()); });
}

std::vector<PendingUpload> Uploads::pending()
{
    static const std::string noKey;
    std::vector<PendingUpload> uploads;
    std::set<std::string> tokens;
    for (std::string token;;)
    {
        UploadsPage page = m_retry.run({Operation::ListObjects, noKey}, [&] { return m_store.listUploads(token); });
        for (PendingUpload& upload : page.uploads)
        {
            upload.uploadId = m_registry.ownIdOf(upload.uploadId).value_or(upload.uploadId);
            uploads.push_back(std::move(upload));
        }
        token = std::move(page.nextToken);
        if (token.empty())
        {
            break;
        }
        if (!tokens.insert(token).second)
        {
            throw UnknownErrorException(
                "Malformed response", "listing the open uploads failed: the store repeats a page of its list");
        }
    }
    std::stable_sort(
        uploads.begin(), uploads.end(), [](const auto& a, const auto& b) { return a.created < b.created; });
    return uploads;
}

} // namespace storage::clients
