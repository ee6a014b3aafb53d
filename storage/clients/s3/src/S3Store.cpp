#include "S3Store.hpp"

#include "protocol/Responses.hpp"
#include <storage/clients/http/Hashing.hpp>
#include <storage/clients/http/ResponseFields.hpp>
#include <storage/clients/http/Times.hpp>
#include <storage/clients/http/UriEncoding.hpp>
#include <storage/clients/remote/KeyPrefix.hpp>
#include <storage/clients/remote/RangeReceiver.hpp>
#include <storage/cloudprovider/CloudExceptions.hpp>
#include <storage/cloudprovider/Logger.hpp>

#include <foundation/log/Severity.hpp>

#include <boost/algorithm/string/predicate.hpp>
#include <fmt/format.h>

#include <algorithm>
#include <utility>

namespace storage::clients::s3
{

using namespace cloudprovider;

namespace
{

/// The MD5 of an object's bytes; empty when its tag is not one, as for an object made of parts or encrypted with a
/// customer's key.
std::string hashIn(const HttpResponse& head, const std::string& tag, bool isWhole)
{
    const std::string* const encryption = head.headers.find("x-amz-server-side-encryption");
    const bool hasKey = head.headers.find("x-amz-server-side-encryption-customer-algorithm") != nullptr ||
                        (encryption != nullptr && *encryption != "AES256");
    const std::string hash = fromHex(tag);
    return !isWhole || hasKey || hash.size() != 16 ? "" : hash;
}

/// Whether the endpoint has refused a request as one that it does not implement or understand.
bool isNotKnown(const CloudException& failure)
{
    return dynamic_cast<const UnsupportedOperationException*>(&failure) != nullptr ||
           dynamic_cast<const NotUnderstood*>(&failure) != nullptr;
}

void warn(const std::string& text)
{
    getLogger().write(foundation::log::severity::warning, text);
}

/// The tag of an object that is made of these parts: the hash of their hashes. Empty if the tags of the parts are not
/// MD5 hashes; such a store returns the object's tag with the completion.
std::string tagOf(const std::vector<NumberedTag>& parts)
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

S3Store::S3Store(const S3Settings& settings)
    : m_requester(settings)
    , m_prefix(settings.prefix)
    , m_capabilities(settings.capabilities)
    , m_transfers(settings.transfers)
    , m_hasHashesAsTags(settings.objects.customerKey.empty() && !settings.objects.encryption.starts_with("aws:kms"))
{
}

StoreAbilities S3Store::abilities(const std::string& key) const
{
    StoreAbilities abilities{.equalParts = m_capabilities.equalParts || m_refusesUnequalParts,
        .maxDeletions = m_deletesMany ? 1'000U : 0U,
        .conditionalTakes = m_capabilities.conditionalCopies && !m_refusesCopyConditions,
        .conditionalWrites = m_capabilities.conditionalWrites,
        .conditionalCreation = m_capabilities.conditionalWrites,
        .conditionalCompletion = m_capabilities.conditionalCompletion};
    const std::string name = m_prefix + key;
    // A store that decodes the name twice would silently copy another object.
    const bool mayCopyOther = !m_capabilities.copiesAnyKey && name.find('%') != std::string::npos;
    if (mayCopyOther || m_refusesCopies)
    {
        abilities.maxCopySize = 0;
        abilities.maxTakeSize = 0;
    }
    if (std::ranges::any_of(name, [](unsigned char byte) { return byte < ' '; }))
    {
        abilities.maxDeletions = 0; // XML has no such characters, or has others instead
    }
    return abilities;
}

std::optional<StoredObject> S3Store::findObject(const std::string& key)
{
    const S3Request request{Operation::GetObjectInfo, key, "HEAD"};
    HttpResponse response;
    const bool sawBucket = m_requester.sawBucket();
    if (sawBucket)
    {
        response = m_requester.send(request, {400, 401, 403, 404});
    }
    if (!sawBucket || (response.status >= 400 && response.status != 404))
    {
        response = getFirstByte(request);
    }
    if (response.status == 416) // the object is empty or archived
    {
        response = m_requester.send(request, {404});
    }
    if (response.status == 404)
    {
        return std::nullopt;
    }
    const std::string* const range = response.headers.find("Content-Range");
    const auto size = range == nullptr ? lengthOf(response) : readNumber(range->substr(range->find('/') + 1));
    const std::string* const tag = response.headers.find("ETag");
    const std::string* const time = response.headers.find("Last-Modified");
    if (!size || tag == nullptr || time == nullptr)
    {
        throwMalformedResponse(
            m_requester.contextOf(request), response, "the response lacks length, entity tag or time");
    }
    return StoredObject{{unquotedTag(*tag), *size, metadataIn(response)}, readHttpTime(*time)};
}

/// Look up an object with GET. Only the response to that contains the reason of a failure: whether the object or the
/// bucket is missing, from which the requester finds the bucket's region, and whether credentials have expired.
///
/// @return 404: there is no such object; 416: it has no first byte, or not now
HttpResponse S3Store::getFirstByte(S3Request request)
{
    request.method = "GET";
    request.headers.add("Range", "bytes=0-0");
    HttpResponse response;
    response.status = 416;
    try
    {
        response = m_requester.send(request, {404, 416});
    }
    catch (const ArchivedObject&)
    {
    }
    response.status == 404 ? requireMissingKey(request, response) : void();
    m_requester.setSawBucket();
    return response;
}

/// Throw unless the 404 means that only the object is missing.
void S3Store::requireMissingKey(const S3Request& request, const HttpResponse& response)
{
    if (readError(response.body).code != "NoSuchKey")
    {
        throwErrorResponse(m_requester.contextOf(request), response);
    }
}

Version S3Store::getObject(const std::string& key, const std::optional<ByteRange>& range,
    const std::optional<Version>& version, const ContentReceiver& receiver)
{
    S3Request request{Operation::GetObjectRange, key, "GET"};
    if (range)
    {
        request.headers.add("Range", rangeField(*range));
    }
    if (version)
    {
        request.headers.add("If-Match", quotedTag(version->tag));
    }
    const FailureContext context = m_requester.contextOf(request);
    const ContentFields fields{metadataIn, hashIn};
    RangeReceiver content(context, fields, range, version, receiver);
    const HttpResponse response = m_requester.send(
        request, {416}, [&](const HttpResponse& head, std::string_view bytes) { content.take(head, bytes); });
    if (response.status != 416)
    {
        return content.finish(response);
    }
    m_requester.setSawBucket();
    return content.finishBeyond(response, findObject(key));
}

std::string S3Store::putObject(
    const std::string& key, RequestBody& body, const WriteCondition& condition, const WrittenMetadata& metadata)
{
    S3Request request{Operation::PutObject, key, "PUT"};
    request.headers = headersFor(request, metadata);
    request.body = &body;
    return sendWrite(request, condition, [&] { return m_requester.sentTag(request, m_requester.send(request)); });
}

/// What a request sends, so that the new object has this metadata. If the object that it comes from has tags, they are
/// requested: the responses to other requests only have their number.
HttpHeaders S3Store::headersFor(const S3Request& write, const WrittenMetadata& metadata)
{
    HttpHeaders headers;
    for (const auto& [name, value] : metadata.fields)
    {
        if (!boost::algorithm::iequals(name, tagCountField))
        {
            headers.add(name, value);
            continue;
        }
        S3Request request{write.operation, metadata.source, "GET"};
        request.query = {{"tagging", ""}};
        try
        {
            const std::string tags = encodeQuery(m_requester.sendAndRead(request, readTags));
            tags.empty() ? void() : headers.add("x-amz-tagging", tags);
        }
        catch (const ResourceNotFoundException&) // the object is gone, and its tags with it
        {
        }
    }
    return headers;
}

/// Send a request that replaces or deletes an object.
///
/// An endpoint that knows no conditions on writes may refuse them as not implemented, or as a bad request. If the
/// settings say that it knows them, nobody has looked for the object before, so the write fails. Otherwise the endpoint
/// only gets `If-None-Match`, and the request again without it.
std::string S3Store::sendWrite(
    S3Request& request, const WriteCondition& condition, const std::function<std::string()>& send)
{
    const bool mustCreate = condition && condition->empty();
    const bool isReplacing = request.operation == Operation::CompleteMultipartUpload && !mustCreate;
    const bool isTrusted = isReplacing ? m_capabilities.conditionalCompletion : m_capabilities.conditionalWrites;
    if (!condition || (!mustCreate && !isTrusted))
    {
        return send();
    }
    const HttpHeaders unconditional = request.headers;
    mustCreate ? request.headers.add("If-None-Match", "*") : request.headers.add("If-Match", quotedTag(*condition));
    try
    {
        return send();
    }
    catch (const CloudException& failure)
    {
        if (!isNotKnown(failure))
        {
            throw;
        }
        if (isTrusted)
        {
            throw UnsupportedOperationException(
                fmt::format("{}; if the endpoint does not implement {}, remove {}=1 from the store's URL",
                    failure.detail().value_or(failure.what()), mustCreate ? "If-None-Match" : "If-Match",
                    isReplacing ? "conditional-completion" : "conditional-writes"));
        }
    }
    request.headers = unconditional;
    return send();
}

void S3Store::deleteObject(const std::string& key, const WriteCondition& condition)
{
    S3Request request{Operation::DeleteObject, key, "DELETE"};
    if (condition && condition->empty()) // no header says that, and there is nothing to delete
    {
        findObject(key) ? throwObjectChanged(m_requester.contextOf(request)) : void();
        return;
    }
    sendWrite(request, condition,
        [&]
        {
            const HttpResponse response = m_requester.send(request, {404});
            if (response.status == 404)
            {
                requireMissingKey(request, response);
                condition ? throwObjectChanged(m_requester.contextOf(request), response.wasSentTwice) : void();
            }
            return std::string();
        });
}

std::map<std::string, std::exception_ptr> S3Store::deleteObjects(const std::vector<std::string>& keys)
{
    TextBody body(writeDeletion(m_prefix, keys));
    if (body.size() > 1U << 20U) // some stores refuse more, each in its own way
    {
        throw UnsupportedOperationException("the names of the objects are too long for one request");
    }
    S3Request request{Operation::DeleteObject, "", "POST"};
    request.query = {{"delete", ""}};
    request.body = &body;
    request.needsMd5 = true;
    HttpResponse ok;
    ok.status = 200;
    std::map<std::string, std::exception_ptr> failures;
    const auto addFailure = [&](const std::string& name, const ErrorDocument& error)
    {
        const std::string key = name.substr(std::min(m_prefix.size(), name.size()));
        if (std::ranges::find(keys, key) == keys.end())
        {
            throw MalformedResponse("the response reports a key that was not to be deleted");
        }
        try
        {
            throwErrorResponse(m_requester.contextOf({Operation::DeleteObject, key, ""}), ok, error);
        }
        catch (const ResourceNotFoundException&) // as after deleteObject()
        {
        }
        catch (const CloudException&)
        {
            failures.emplace(key, std::current_exception());
        }
    };
    try
    {
        m_requester.sendAndRead(request, [&](const std::string& document) { readDeletion(document, addFailure); });
    }
    catch (const UnsupportedOperationException&)
    {
        m_deletesMany = false;
        throw;
    }
    catch (const NotUnderstood& failure) // perhaps only one of the keys
    {
        throw UnsupportedOperationException(failure.detail().value_or(failure.what()));
    }
    return failures;
}

std::string S3Store::copyObject(const CopySource& source, const std::string& target, const WriteCondition& condition)
{
    S3Request request{Operation::PutObject, target, "PUT"};
    for (const auto& [name, value] : *source.version.metadata)
    {
        if (boost::algorithm::iequals(name, "x-amz-storage-class") ||
            boost::algorithm::iequals(name, "x-amz-website-redirect-location"))
        {
            request.headers.add(name, value); // the store copies all others
        }
    }
    return sendWrite(request, condition, [&] { return sendCopy(request, source, source.version.size, readCopy); });
}

/// Send a request that copies from the version, which the endpoint compares if it can.
///
/// An endpoint that does not know the condition, or copies at all, refuses both as not implemented or as a bad request,
/// or stores an empty part. What it refuses is remembered.
/// @param size  bytes that it copies
/// @param read  returns the tag of the copy
std::string S3Store::sendCopy(S3Request request, const CopySource& source, std::uint64_t size,
    const std::function<std::string(const std::string& document)>& read)
{
    request.headers.add("x-amz-copy-source", m_requester.copySource(source.key));
    request.serverSideWork = true;
    request.serverSideBytes = size * m_transfers; // as many copies of about this size may be running
    const auto send = [&](const S3Request& copy)
    {
        return m_requester.sendAndRead(copy,
            [&](const std::string& document)
            {
                if (!document.empty())
                {
                    return read(document);
                }
                const std::string text = m_requester.contextOf(copy).action + " failed: the store has copied nothing";
                copy.operation == Operation::CopyPart
                    ? throw UnsupportedOperationException(text)
                    : throw UnknownErrorException("Store error", text + ", and may have stored an empty object");
            });
    };
    bool wasSentTwice = false;
    for (bool isConditional = !m_refusesCopyConditions;; isConditional = false)
    {
        S3Request copy = request;
        isConditional ? copy.headers.add("x-amz-copy-source-if-match", quotedTag(source.version.tag)) : void();
        try
        {
            std::string tag = send(copy);
            if (!isConditional && !m_refusesCopyConditions.exchange(true) && m_capabilities.conditionalCopies)
            {
                warn("the endpoint refuses conditions on copies, so versions are looked up instead; remove "
                     "conditional-copies=1 from the store's URL");
            }
            return tag;
        }
        catch (const CloudException& failure)
        {
            const auto* const refusal = dynamic_cast<const PreconditionFailed*>(&failure);
            if (refusal == nullptr && !isNotKnown(failure))
            {
                throw;
            }
            wasSentTwice = wasSentTwice || (refusal != nullptr && refusal->wasSentTwice());
            const auto object = findObject(source.key); // fails if the request was refused for another reason
            const bool isOther = !object || object->version.tag != source.version.tag;
            if (isOther || (refusal != nullptr && !isConditional)) // the second is about the target
            {
                throwObjectChanged(m_requester.contextOf(copy), wasSentTwice);
            }
            if (!isConditional)
            {
                const std::string reason = failure.detail().value_or(failure.what());
                if (request.operation == Operation::CopyPart && !m_refusesCopies.exchange(true))
                {
                    warn("the endpoint does not copy parts, so unchanged bytes are downloaded and uploaded: " + reason);
                }
                throw UnsupportedOperationException(reason);
            }
        }
    }
}

ListingPage S3Store::listObjects(const std::string& prefix, const std::string& token, const ListOptions& options)
{
    S3Request request{Operation::ListObjects, "", "GET"};
    request.query = {{"list-type", "2"}, {"encoding-type", "url"}, {"prefix", m_prefix + prefix}};
    if (!options.delimiter.empty())
    {
        request.query.emplace_back("delimiter", options.delimiter);
    }
    if (options.maxKeys > 0)
    {
        request.query.emplace_back("max-keys", std::to_string(options.maxKeys));
    }
    if (!token.empty())
    {
        request.query.emplace_back("continuation-token", token);
    }
    ListingPage page = m_requester.sendAndRead(request, readListing);
    removePrefix(page.entries, m_prefix);
    return page;
}

std::string S3Store::createUpload(const std::string& key, const WrittenMetadata& metadata)
{
    S3Request request{Operation::CreateMultipartUpload, key, "POST"};
    request.query = {{"uploads", ""}};
    request.headers = headersFor(request, metadata);
    request.uninterruptible = true; // an upload whose id is lost could not be aborted
    return m_requester.sendAndRead(request, readNewUpload);
}

std::string S3Store::uploadPart(
    const std::string& key, const std::string& uploadId, std::size_t number, RequestBody& body)
{
    S3Request request{Operation::UploadPart, key, "PUT"};
    request.query = {{"partNumber", std::to_string(number)}, {"uploadId", uploadId}};
    request.body = &body;
    return m_requester.sentTag(request, m_requester.send(request));
}

std::string S3Store::takePart(const std::string& key, const std::string& uploadId, std::size_t number,
    const CopySource& source, const ByteRange& range)
{
    S3Request request{Operation::CopyPart, key, "PUT"};
    request.query = {{"partNumber", std::to_string(number)}, {"uploadId", uploadId}};
    if (range.size < source.version.size) // stores refuse ranges of small objects, which must be copied whole
    {
        request.headers.add("x-amz-copy-source-range", rangeField(range));
    }
    return sendCopy(request, source, range.size, readCopiedPart);
}

std::string S3Store::completeUpload(const std::string& key, const std::string& uploadId,
    const std::vector<NumberedTag>& parts, const WriteCondition& condition)
{
    TextBody body(writeCompletion(parts));
    S3Request request{Operation::CompleteMultipartUpload, key, "POST"};
    request.query = {{"uploadId", uploadId}};
    request.body = &body;
    request.serverSideWork = true;
    try
    {
        std::string tag =
            sendWrite(request, condition, [&] { return m_requester.sendAndRead(request, readCompletion); });
        return tag.empty() ? tagOf(parts) : tag;
    }
    catch (const UnequalParts&)
    {
        m_refusesUnequalParts.exchange(true)
            ? void()
            : warn("the endpoint wants parts of equal size; set equal-parts=1 in the store's URL, so that files are "
                   "written with fewer requests and less temporary space");
        throw;
    }
}

void S3Store::abortUpload(const std::string& key, const std::string& uploadId)
{
    S3Request request{Operation::AbortMultipartUpload, key, "DELETE"};
    request.query = {{"uploadId", uploadId}};
    request.cleansUp = true;
    if (m_requester.send(request, {404}).status == 404)
    {
        throw ResourceNotFoundException(m_requester.contextOf(request).action + " failed: there is no such upload");
    }
}

bool S3Store::isOpen(const std::string& key, const std::string& uploadId)
{
    S3Request request{Operation::CompleteMultipartUpload, key, "GET"};
    request.query = {{"uploadId", uploadId}, {"max-parts", "1"}};
    try
    {
        m_requester.send(request);
        return true;
    }
    catch (const ResourceNotFoundException&)
    {
        return false;
    }
}

UploadsPage S3Store::listUploads(const std::string& token)
{
    S3Request request{std::nullopt, "", "GET"};
    request.query = {{"uploads", ""}};
    if (!m_prefix.empty())
    {
        request.query.emplace_back("prefix", m_prefix);
    }
    if (const std::size_t slash = token.find('/'); slash != std::string::npos) // see below
    {
        request.query.emplace_back("key-marker", token.substr(slash + 1));
        request.query.emplace_back("upload-id-marker", uriDecode(token.substr(0, slash)));
    }
    UploadsDocument page = m_requester.sendAndRead(request, readUploads);
    removePrefix(page.uploads, m_prefix);
    return {std::move(page.uploads), page.nextKey.empty() ? "" : uriEncode(page.nextUploadId) + '/' + page.nextKey};
}

bool S3Store::isMadeOf(const std::string& /*key*/, const StoredObject& object, RequestBody& body)
{
    return m_hasHashesAsTags && object.version.tag == toHex(md5(body));
}

bool S3Store::isMadeOf(const std::string& /*key*/, const StoredObject& object, const std::string& /*uploadId*/,
    const std::vector<NumberedTag>& parts)
{
    return object.version.tag == tagOf(parts);
}

} // namespace storage::clients::s3
