#include "MultipartUploads.hpp"

#include "PartCutting.hpp"

#include "protocol/Answers.hpp"
#include "signing/Hashing.hpp"

#include <storage/clients/common/KeyRules.hpp>
#include <storage/clients/common/PartRules.hpp>
#include <storage/clients/common/TransientException.hpp>
#include <storage/cloudprovider/CloudExceptions.hpp>

#include <fmt/format.h>

#include <algorithm>
#include <sstream>
#include <utility>

namespace storage::clients::s3
{

using namespace cloudprovider;

namespace
{

QueryParameters partQuery(const std::string& key, const PartInfo& part, const std::string& storeId)
{
    if (part.Index >= mostParts)
    {
        throw UnknownErrorException("Too many parts",
            fmt::format("{} has no room for part {}: the store takes {} parts of an object; write it in larger parts",
                quoted(key), part.Index + 1, mostParts));
    }
    return {{"partNumber", std::to_string(part.Index + 1)}, {"uploadId", storeId}};
}

/// The entity tag of an object made of parts: the hash of their hashes. Stores that tag parts otherwise make another,
/// and tell it with the completion.
std::string joinedTag(const std::vector<std::pair<std::size_t, std::string>>& parts)
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
    checkKey(key);
    return m_uploads.begin(key, m_uploads.versionOf(tag).value_or(""));
}

std::string MultipartUploads::openAtStore(Upload& upload)
{
    return upload.storeId(
        [&]
        {
            S3Request request{Operation::CreateMultipartUpload, upload.key(), "POST"};
            request.query = {{"uploads", ""}};
            return m_requester.sendAndRead(request, readNewUpload);
        });
}

std::string MultipartUploads::send(
    const std::string& key, const std::string& id, const PartInfo& part, std::istream& content)
{
    const auto upload = m_uploads.find(key, id);
    StreamBody body(key, content, part.Size);
    return sendBody(*upload, id, part, body);
}

std::string MultipartUploads::sendBody(
    Upload& upload, const std::string& id, const PartInfo& part, RequestBody& body, const std::string& copiedVersion)
{
    S3Request request{Operation::UploadPart, upload.key(), "PUT"};
    request.query = partQuery(upload.key(), part, openAtStore(upload));
    request.body = &body;
    const HttpResponse response = m_requester.send(request);
    const std::string tag = m_requester.sentTag(request, response);
    upload.setPart(part.Index, {tag, part.Size, copiedVersion});
    return Uploads::partTag(id, tag);
}

std::string MultipartUploads::copy(const std::string& key, const std::string& id, const PartInfo& part)
{
    const auto upload = m_uploads.find(key, id);
    S3Request request{Operation::CopyPart, key, "PUT"};
    const Version source = requireSource(part, request);
    if (part.Size == 0)
    {
        TextBody nothing{std::string()}; // which no range stands for
        return sendBody(*upload, id, part, nothing);
    }
    if (key.find('%') != std::string::npos)
    {
        // Some stores decode the name of the source twice, and would copy from another object without a word.
        TextBody bytes(readSource(key, part, source));
        return sendBody(*upload, id, part, bytes, source.tag);
    }
    request.query = partQuery(key, part, openAtStore(*upload));
    request.headers.add(
        "x-amz-copy-source", fmt::format("/{}/{}", uriEncode(m_requester.bucket()), uriEncodePath(key)));
    request.headers.add("x-amz-copy-source-if-match", quotedTag(source.tag));
    if (part.Size < source.size) // small objects may only be copied whole
    {
        request.headers.add(
            "x-amz-copy-source-range", fmt::format("bytes={}-{}", part.Offset, part.Offset + part.Size - 1));
    }
    request.storeWorks = true;
    const std::string tag = m_requester.sendAndRead(request, readCopiedPart);
    upload->setPart(part.Index, {tag, part.Size, source.tag});
    return Uploads::partTag(id, tag);
}

std::string MultipartUploads::readSource(const std::string& key, const PartInfo& part, const Version& source)
{
    std::ostringstream bytes;
    if (!m_objects.readVersion(Operation::CopyPart, key, bytes, ByteRange{part.Offset, part.Size}, source))
    {
        throwChanged(m_requester.contextOf({Operation::CopyPart, key, "GET"}));
    }
    return std::move(bytes).str();
}

/// @return the version that the part is copied from, as it is known to be stored
Version MultipartUploads::requireSource(const PartInfo& part, const S3Request& request)
{
    const auto wanted = m_uploads.versionOf(part.Tag);
    if (!wanted)
    {
        throwChanged(m_requester.contextOf(request));
    }
    std::optional<Version> stored = m_versions.current(request.key);
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
        throwChanged(m_requester.contextOf(request));
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
    if (!m_uploads.isOwn(id))
    {
        abortOfOthers(key, id);
        return;
    }
    const auto upload = m_uploads.find(key, id);
    if (const std::string storeId = upload->storeIdIfOpen(); !storeId.empty())
    {
        S3Request request{Operation::AbortMultipartUpload, key, "DELETE"};
        request.query = {{"uploadId", storeId}};
        m_requester.send(request, {404}); // an upload that is gone needs no abort
    }
    m_uploads.finish(id, upload->base());
}

void MultipartUploads::abortOfOthers(const std::string& key, const std::string& storeId)
{
    if (key.empty() || storeId.empty()) // either would make it another request
    {
        throw ResourceNotFoundException("no upload " + quoted(storeId) + " of " + quoted(key) + " is open");
    }
    S3Request request{Operation::AbortMultipartUpload, key, "DELETE"};
    request.query = {{"uploadId", storeId}};
    const auto inDoubt = [&](bool isNow)
    {
        const std::lock_guard lock(m_mutex);
        return isNow ? m_abortsInDoubt.insert(storeId).second : m_abortsInDoubt.erase(storeId) != 0;
    };
    try
    {
        const HttpResponse response = m_requester.send(request, {404});
        if (!inDoubt(false) && response.status == 404)
        {
            throwAnswered(m_requester.contextOf(request), response);
        }
    }
    catch (const TransientException&)
    {
        inDoubt(true);
        throw;
    }
}

void MultipartUploads::complete(const std::string& key, const std::string& id, const std::vector<PartInfo>& parts)
{
    const auto upload = m_uploads.find(key, id);
    const Plan completion = plan(*upload, id, parts);
    KnownVersions::Write write(m_versions, key);
    std::string tag;
    try
    {
        tag = endUpload(*upload, completion);
    }
    catch (...)
    {
        if (!upload->endInDoubt())
        {
            write.changedNothing();
        }
        throw;
    }
    if (!tag.empty())
    {
        write.succeeded({tag, completion.size});
    }
    m_uploads.finish(id, tag);
}

MultipartUploads::Plan MultipartUploads::plan(
    const Upload& upload, const std::string& id, const std::vector<PartInfo>& parts)
{
    checkPartList(upload.key(), parts,
        [&](std::size_t index) -> std::optional<SentPart>
        {
            const auto part = upload.part(index);
            return part ? std::optional(SentPart{Uploads::partTag(id, part->tag), part->size}) : std::nullopt;
        });
    Plan plan;
    std::string copiedVersion;
    for (const PartInfo& listed : parts)
    {
        const Upload::Part part = upload.part(listed.Index).value();
        plan.parts.emplace_back(listed.Index + 1, part.tag);
        plan.size += part.size;
        if (part.copiedVersion.empty())
        {
            continue;
        }
        if (!copiedVersion.empty() && copiedVersion != part.copiedVersion)
        {
            throwChanged(m_requester.contextOf({Operation::CompleteMultipartUpload, upload.key(), "POST"}));
        }
        copiedVersion = part.copiedVersion;
    }
    plan.newTag = joinedTag(plan.parts);
    plan.replaces = copiedVersion;
    if (copiedVersion.empty() && !upload.base().empty())
    {
        // What this process has written since the file was opened is no change by somebody else.
        const auto current = m_versions.current(upload.key());
        const bool isOurs = current && m_versions.descends(upload.key(), current->tag, upload.base());
        plan.replaces = isOurs ? current->tag : upload.base();
    }
    return plan;
}

/// @return the new object's entity tag
std::string MultipartUploads::endUpload(Upload& upload, const Plan& plan)
{
    S3Request request{Operation::CompleteMultipartUpload, upload.key(), "POST"};
    const auto isDone = [&](const std::optional<ObjectInfo>& stored)
    { return upload.endInDoubt() && stored && !plan.newTag.empty() && stored->tag == plan.newTag; };

    const bool isConditional = m_capabilities.conditionalCopies && m_capabilities.conditionalCompletion;
    if (upload.endInDoubt() || (!plan.replaces.empty() && !isConditional))
    {
        // After the last copy: if the object is still that version, everything copied came from it.
        const auto stored = m_objects.info(request.operation, request.key);
        if (isDone(stored))
        {
            return plan.newTag;
        }
        if (!plan.replaces.empty() && (!stored || stored->tag != plan.replaces))
        {
            throwChanged(m_requester.contextOf(request));
        }
    }

    TextBody body(writeCompletion(plan.parts));
    request.query = {{"uploadId", upload.storeIdIfOpen()}};
    request.body = &body;
    request.storeWorks = true;
    if (!plan.replaces.empty() && m_capabilities.conditionalCompletion)
    {
        request.headers.add("If-Match", quotedTag(plan.replaces));
    }
    try
    {
        const std::string tag = m_requester.sendAndRead(request, readCompletion);
        return tag.empty() ? plan.newTag : tag;
    }
    catch (const TransientException&)
    {
        upload.setEndInDoubt();
        if (isDone(m_objects.info(request.operation, request.key)))
        {
            return plan.newTag;
        }
        if (isOpenAtStore(upload))
        {
            throw;
        }
    }
    catch (const ResourceNotFoundException&)
    {
        upload.setEndInDoubt();
        if (isDone(m_objects.info(request.operation, request.key)))
        {
            return plan.newTag;
        }
    }
    throw UnknownErrorException("Outcome unknown", m_requester.contextOf(request).action +
                                                       " failed: the upload is gone, and the object under the key is "
                                                       "not the one that it makes; somebody has aborted "
                                                       "it, or replaced the object at once");
}

bool MultipartUploads::isOpenAtStore(const Upload& upload)
{
    S3Request request{Operation::CompleteMultipartUpload, upload.key(), "GET"};
    request.query = {{"uploadId", upload.storeIdIfOpen()}, {"max-parts", "1"}};
    return m_requester.send(request, {404}).status != 404;
}

std::vector<PendingUpload> MultipartUploads::pending()
{
    std::vector<PendingUpload> uploads;
    UploadsPage page;
    do
    {
        S3Request request{Operation::AbortMultipartUpload, "", "GET"};
        request.query = {{"uploads", ""}};
        if (!page.nextKey.empty())
        {
            request.query.emplace_back("key-marker", page.nextKey);
            request.query.emplace_back("upload-id-marker", page.nextUploadId);
        }
        page = m_requester.sendAndRead(request, readUploads);
        for (PendingUpload& upload : page.uploads)
        {
            upload.uploadId = m_uploads.ownIdOf(upload.uploadId).value_or(upload.uploadId);
            uploads.push_back(std::move(upload));
        }
    } while (!page.nextKey.empty());
    std::stable_sort(
        uploads.begin(), uploads.end(), [](const auto& a, const auto& b) { return a.created < b.created; });
    return uploads;
}

} // namespace storage::clients::s3
