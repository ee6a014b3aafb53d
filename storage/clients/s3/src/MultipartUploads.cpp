#include "MultipartUploads.hpp"

#include "Parallel.hpp"

#include "protocol/Responses.hpp"
#include <storage/clients/common/Content.hpp>
#include <storage/clients/common/KeyRules.hpp>
#include <storage/clients/common/PartRules.hpp>
#include <storage/clients/common/TransientException.hpp>
#include <storage/clients/http/Hashing.hpp>
#include <storage/cloudprovider/CloudExceptions.hpp>

#include <boost/iostreams/device/array.hpp>
#include <boost/iostreams/stream_buffer.hpp>
#include <fmt/format.h>

#include <algorithm>
#include <ostream>
#include <utility>

namespace storage::clients::s3
{

using namespace cloudprovider;

namespace
{

/// Compute the entity tag of an object made of parts: the hash of their hashes. Empty if the tags of the parts are not
/// MD5 hashes; such a store returns the object's tag with the completion.
std::string multipartTag(const std::vector<std::pair<std::size_t, std::string>>& parts)
{
    std::string hashes;
    for (const auto& [number, tag] : parts)
    {
        const std::string hash = fromHex(tag);
        if (hash.size() != 16)
        {
            return {};
        }
        hashes += hash;
    }
    return fmt::format("{}-{}", toHex(md5(hashes)), parts.size());
}

} // namespace

std::string MultipartUploads::create(const std::string& key, const std::string& tag)
{
    return m_registry.begin(key, tag);
}

std::string MultipartUploads::openAtStore(Upload& upload)
{
    return upload.ensureStoreId(
        [&]
        {
            S3Request request{Operation::CreateMultipartUpload, upload.key(), "POST"};
            request.query = {{"uploads", ""}};
            request.uninterruptible = true; // an upload whose id is lost could not be aborted
            return m_requester.sendAndRead(request, readNewUpload);
        });
}

UploadLimits MultipartUploads::limitsFor(const std::string& key) const
{
    UploadLimits limits{.equalParts = m_capabilities.equalParts, .pinnedCopies = m_capabilities.conditionalCopies};
    if (!m_capabilities.copiesAnyKey && key.find('%') != std::string::npos)
    {
        limits.maxCopySize = 0; // a store that decodes the name twice would silently copy another object
    }
    return limits;
}

std::string MultipartUploads::send(
    const std::string& key, const std::string& id, const PartInfo& part, std::istream& content)
{
    const auto upload = m_registry.find(key, id);
    checkKey(key); // not when the upload is opened, because a close might hide that failure
    if (part.Index >= maxParts)
    {
        throw UnknownErrorException("Too many parts",
            fmt::format("{} cannot have a part {}: the store accepts at most {} parts; write it in larger parts",
                quoted(key), part.Index + 1, maxParts));
    }
    if (!upload->isNew() && part.Size < minPartSize && !m_capabilities.equalParts)
    {
        std::string bytes(part.Size, '\0');
        readContent(key, content, bytes.data(), bytes.size());
        return UploadRegistry::partTag(id, upload->spoolPart(part.Index, bytes));
    }
    StreamBody body(key, content, part.Size);
    const std::string tag = sendBody(*upload, part.Index + 1, body);
    upload->setPart(part.Index, {PartPlace::Uploaded, tag, part.Size});
    return UploadRegistry::partTag(id, tag);
}

std::string MultipartUploads::sendBody(Upload& upload, std::size_t number, RequestBody& body)
{
    S3Request request{Operation::UploadPart, upload.key(), "PUT"};
    request.query = {{"partNumber", std::to_string(number)}, {"uploadId", openAtStore(upload)}};
    request.body = &body;
    const HttpResponse response = m_requester.send(request);
    return m_requester.sentTag(request, response);
}

std::string MultipartUploads::copy(const std::string& key, const std::string& id, const PartInfo& part)
{
    const auto upload = m_registry.find(key, id);
    const Version source = requireSource(part, {Operation::CopyPart, key, "PUT"});
    const std::string tag = fmt::format("copy-{}-{}", source.tag, part.Offset);
    upload->setPart(part.Index, {PartPlace::Object, tag, part.Size, part.Offset, source});
    return UploadRegistry::partTag(id, tag);
}

/// @return the stored version that the part is copied from
Version MultipartUploads::requireSource(const PartInfo& part, const S3Request& request)
{
    const auto wanted = m_registry.versionOf(part.Tag);
    if (!wanted)
    {
        throwObjectChanged(m_requester.contextOf(request));
    }
    std::optional<Version> stored = m_pins.pinned(request.key);
    if (!stored || (!wanted->empty() && stored->tag != *wanted))
    {
        const auto object = m_objects.info(Operation::CopyPart, request.key);
        if (!object)
        {
            throw ResourceNotFoundException(m_requester.contextOf(request).action + " failed: there is no such object");
        }
        stored = Version{object->tag, object->size};
    }
    if (!wanted->empty() && stored->tag != *wanted)
    {
        throwObjectChanged(m_requester.contextOf(request));
    }
    if (part.Offset > stored->size || part.Size > stored->size - part.Offset)
    {
        throw UnknownErrorException("Invalid range",
            fmt::format("{} failed: bytes {} to {} end beyond the object of {} bytes",
                m_requester.contextOf(request).action, part.Offset, part.Offset + part.Size, stored->size));
    }
    return *stored;
}

void MultipartUploads::abort(const std::string& key, const std::string& id)
{
    if (!m_registry.isOwn(id))
    {
        abortForeignUpload(key, id);
        return;
    }
    const auto upload = m_registry.find(key, id);
    if (const std::string storeId = upload->storeId(); !storeId.empty())
    {
        S3Request request{Operation::AbortMultipartUpload, key, "DELETE"};
        request.query = {{"uploadId", storeId}};
        request.cleansUp = true;
        m_requester.send(request, {404}); // an upload that no longer exists counts as aborted
    }
    m_registry.finish(id, upload->base());
}

void MultipartUploads::abortForeignUpload(const std::string& key, const std::string& storeId)
{
    if (key.empty() || storeId.empty()) // with one of them empty it would be another request
    {
        throw ResourceNotFoundException("no upload " + quoted(storeId) + " of " + quoted(key) + " is open");
    }
    S3Request request{Operation::AbortMultipartUpload, key, "DELETE"};
    request.query = {{"uploadId", storeId}};
    // @return whether the set has changed
    const auto setUnconfirmed = [&](bool isUnconfirmed)
    {
        const std::lock_guard lock(m_mutex);
        return isUnconfirmed ? m_unconfirmedAborts.insert(storeId).second : m_unconfirmedAborts.erase(storeId) != 0;
    };
    try
    {
        const HttpResponse response = m_requester.send(request, {404});
        if (!setUnconfirmed(false) && response.status == 404)
        {
            throwErrorResponse(m_requester.contextOf(request), response);
        }
    }
    catch (const TransientException&)
    {
        setUnconfirmed(true);
        throw;
    }
}

void MultipartUploads::complete(const std::string& key, const std::string& id, const std::vector<PartInfo>& parts)
{
    const auto upload = m_registry.find(key, id);
    const Completion completion = prepare(*upload, id, parts);
    const std::size_t doneBefore = upload->doneCount();
    try
    {
        m_registry.finish(id, assembleObject(*upload, completion));
    }
    catch (const TransientException& failure)
    {
        const bool madeProgress = upload->doneCount() > doneBefore; // at most once per planned part, so retries end
        throw TransientException(failure.what(), failure.detail(), failure.retryAfter(), madeProgress);
    }
    catch (...)
    {
        if (!upload->isOutcomeUnknown()) // otherwise the tags of the parts tell whether the new object was stored
        {
            upload->forgetDone(); // the parts may be of another version than the one that a retry will find
        }
        throw;
    }
}

/// @return the new object's entity tag
std::string MultipartUploads::assembleObject(Upload& upload, const Completion& completion)
{
    const NumberedTags parts = transferParts(upload, completion);
    // Not before the transfers: they may take minutes and change no object, and a read that finds another version
    // waits.
    VersionPins::Write write(m_pins, upload.key());
    std::string tag = finishUpload(upload, completion, parts);
    if (!tag.empty())
    {
        write.succeeded({tag, completion.plan.size});
    }
    return tag;
}

MultipartUploads::Completion MultipartUploads::prepare(
    const Upload& upload, const std::string& id, const std::vector<PartInfo>& parts)
{
    checkPartList(upload.key(), parts,
        [&](std::size_t index) -> std::optional<SentPart>
        {
            const auto part = upload.part(index);
            return part ? std::optional(SentPart{UploadRegistry::partTag(id, part->tag), part->size}) : std::nullopt;
        });
    Completion completion;
    std::vector<FilePart> file;
    for (const PartInfo& listed : parts)
    {
        const Upload::Part part = upload.part(listed.Index).value();
        file.push_back({listed.Index, part.place, part.size, part.offset});
        if (part.place != PartPlace::Object)
        {
            continue;
        }
        if (!completion.source.tag.empty() && completion.source.tag != part.source.tag)
        {
            throwObjectChanged(m_requester.contextOf({Operation::CompleteMultipartUpload, upload.key(), "POST"}));
        }
        completion.source = part.source;
    }
    completion.plan = planUpload(file, limitsFor(upload.key()));
    completion.replaces = completion.source.tag;
    if (completion.source.tag.empty() && !upload.base().empty())
    {
        // A version that this process has written since the file was opened may be replaced.
        const auto current = m_pins.pinned(upload.key());
        const bool isOurs = current && m_pins.descends(upload.key(), current->tag, upload.base());
        completion.replaces = isOurs ? current->tag : upload.base();
    }
    if (const auto required = m_required.find(upload.key()))
    {
        if (!completion.replaces.empty() && completion.replaces != *required)
        {
            throwOtherVersion(upload.key(), *required);
        }
        completion.replaces = *required;
        completion.mustCreate = required->empty();
    }
    return completion;
}

/// Copy and send the parts that the store does not have yet.
MultipartUploads::NumberedTags MultipartUploads::transferParts(Upload& upload, const Completion& completion)
{
    NumberedTags tags;
    Tasks copies;
    Tasks sends;
    std::uint64_t largestSend = 1;              // bytes; a part that is sent is in memory as a whole
    tags.reserve(completion.plan.parts.size()); // tasks keep references to its elements
    for (const PlannedPart& part : completion.plan.parts)
    {
        tags.emplace_back(part.number, "");
        if (part.how == PlannedPart::How::Keep)
        {
            tags.back().second = upload.part(part.number - 1).value().tag;
        }
        else if (const auto made = upload.doneTag(part))
        {
            tags.back().second = *made;
        }
        else
        {
            const bool isSent = part.how == PlannedPart::How::Send;
            largestSend = std::max(largestSend, isSent ? part.size : 0);
            Tasks& tasks = isSent ? sends : copies;
            tasks.emplace_back(
                [&, &tag = tags.back().second]
                {
                    tag = transferPart(upload, part, completion.source);
                    upload.recordDone(part, tag);
                });
        }
    }
    runParallel(m_transfers, copies, std::max<std::size_t>(m_memory / largestSend, 1), sends);
    return tags;
}

std::string MultipartUploads::transferPart(Upload& upload, const PlannedPart& part, const Version& source)
{
    if (part.how == PlannedPart::How::Send)
    {
        TextBody body(gather(upload, part, source));
        return sendBody(upload, part.number, body);
    }
    const PlannedBytes& range = part.bytes.front();
    S3Request request{Operation::CopyPart, upload.key(), "PUT"};
    request.query = {{"partNumber", std::to_string(part.number)}, {"uploadId", openAtStore(upload)}};
    request.headers.add(
        "x-amz-copy-source", fmt::format("/{}/{}", uriEncode(m_requester.bucket()), uriEncodePath(upload.key())));
    request.headers.add("x-amz-copy-source-if-match", quotedTag(source.tag));
    if (range.size < source.size) // stores refuse ranges of small objects, which must be copied whole
    {
        request.headers.add(
            "x-amz-copy-source-range", fmt::format("bytes={}-{}", range.offset, range.offset + range.size - 1));
    }
    request.serverSideWork = true;
    request.serverSideBytes = range.size * m_transfers; // as many copies of about this size may be running
    return m_requester.sendAndRead(request, readCopiedPart);
}

/// Collect the bytes of a part that is sent.
std::string MultipartUploads::gather(const Upload& upload, const PlannedPart& part, const Version& source)
{
    std::string all(part.size, '\0');
    char* target = all.data();
    for (const PlannedBytes& bytes : part.bytes)
    {
        if (bytes.place == PartPlace::Spooled)
        {
            upload.readSpooled(bytes, target);
        }
        else
        {
            boost::iostreams::stream_buffer<boost::iostreams::basic_array_sink<char>> memory(target, bytes.size);
            std::ostream out(&memory);
            if (!m_objects.readVersion(
                    Operation::CopyPart, upload.key(), out, ByteRange{bytes.offset, bytes.size}, source))
            {
                throwObjectChanged(m_requester.contextOf({Operation::CopyPart, upload.key(), "GET"}));
            }
        }
        target += bytes.size;
    }
    return all;
}

/// @return the new object's entity tag
std::string MultipartUploads::finishUpload(Upload& upload, const Completion& completion, const NumberedTags& parts)
{
    constexpr Operation operation = Operation::CompleteMultipartUpload;
    S3Request request{operation, upload.key(), "POST"};
    std::string newTag = multipartTag(parts);
    const auto isDone = [&](const std::optional<ObjectInfo>& stored)
    { return upload.isOutcomeUnknown() && stored && !newTag.empty() && stored->tag == newTag; };

    const bool needsVersionCheck =
        completion.mustCreate ? !m_capabilities.conditionalWrites
                              : !completion.replaces.empty() &&
                                    (completion.plan.needsVersionCheck || !m_capabilities.conditionalCompletion);
    if (upload.isOutcomeUnknown() || needsVersionCheck)
    {
        // After the last copy: if the object is still this version, all copies came from it.
        const auto stored = m_objects.info(operation, request.key);
        if (isDone(stored))
        {
            return newTag;
        }
        if ((completion.mustCreate && stored) ||
            (!completion.replaces.empty() && (!stored || stored->tag != completion.replaces)))
        {
            // No completion has taken effect while the upload is open: the object is somebody else's.
            if (upload.isOutcomeUnknown() && !isOpenAtStore(upload).value_or(false))
            {
                throwOutcomeUnknown(request);
            }
            completion.mustCreate ? throwOtherVersion(request.key, "")
                                  : throwObjectChanged(m_requester.contextOf(request));
        }
    }

    TextBody body(writeCompletion(parts));
    request.query = {{"uploadId", upload.storeId()}};
    request.body = &body;
    request.serverSideWork = true;
    if (!completion.replaces.empty() && m_capabilities.conditionalCompletion)
    {
        request.headers.add("If-Match", quotedTag(completion.replaces));
    }
    try
    {
        const auto send = [&] { return m_requester.sendAndRead(request, readCompletion); };
        const std::string tag = completion.mustCreate ? m_objects.sendToCreate(request, send) : send();
        return tag.empty() ? newTag : tag;
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
        // When a connection breaks, the HTTP client may send the request twice. The second may be refused because the
        // first one has succeeded.
        const bool isThere = completion.mustCreate && dynamic_cast<const PreconditionFailed*>(&failure) != nullptr;
        if (!isThere || body.wasSentTwice())
        {
            upload.setOutcomeUnknown();
        }
        if (!isDone(m_objects.info(operation, request.key)))
        {
            isThere ? throwOtherVersion(request.key, "") : throw;
        }
    }
    if (isDone(m_objects.info(operation, request.key)))
    {
        return newTag;
    }
    throwOutcomeUnknown(request);
}

void MultipartUploads::throwOutcomeUnknown(const S3Request& request)
{
    throw UnknownErrorException("Outcome unknown",
        m_requester.contextOf(request).action +
            " failed: the response was lost, the upload no longer exists, and the object under the key is not the "
            "expected one; the upload may have been aborted, the object may have been replaced, or the store uses "
            "entity tags of its own");
}

/// Whether the upload still exists; nothing when the request for it fails.
std::optional<bool> MultipartUploads::isOpenAtStore(const Upload& upload)
{
    S3Request request{Operation::CompleteMultipartUpload, upload.key(), "GET"};
    request.query = {{"uploadId", upload.storeId()}, {"max-parts", "1"}};
    try
    {
        return m_requester.send(request, {404}).status != 404;
    }
    catch (const CloudException&)
    {
        return std::nullopt;
    }
}

std::vector<PendingUpload> MultipartUploads::pending()
{
    std::vector<PendingUpload> uploads;
    UploadsPage page;
    do
    {
        S3Request request{std::nullopt, "", "GET"};
        request.query = {{"uploads", ""}};
        if (!page.nextKey.empty())
        {
            request.query.emplace_back("key-marker", page.nextKey);
            request.query.emplace_back("upload-id-marker", page.nextUploadId);
        }
        page = m_requester.sendAndRead(request, readUploads);
        for (PendingUpload& upload : page.uploads)
        {
            upload.uploadId = m_registry.ownIdOf(upload.uploadId).value_or(upload.uploadId);
            uploads.push_back(std::move(upload));
        }
    } while (!page.nextKey.empty());
    std::stable_sort(
        uploads.begin(), uploads.end(), [](const auto& a, const auto& b) { return a.created < b.created; });
    return uploads;
}

} // namespace storage::clients::s3
