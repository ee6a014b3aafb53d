#include "AzureStore.hpp"

#include <storage/clients/http/Hashing.hpp>
#include <storage/clients/http/ResponseFields.hpp>
#include <storage/clients/http/Times.hpp>
#include <storage/clients/remote/KeyPrefix.hpp>
#include <storage/clients/remote/RangeReceiver.hpp>
#include <storage/cloudprovider/CloudExceptions.hpp>
#include <storage/cloudprovider/Logger.hpp>

#include <foundation/log/Severity.hpp>

#include <boost/algorithm/string/predicate.hpp>

#include <fmt/format.h>

#include <algorithm>
#include <utility>

namespace storage::clients::azure
{

using namespace cloudprovider;

namespace
{

constexpr std::uint64_t maxHashedRange = 4U << 20; // bytes; the service hashes no larger ones
constexpr std::uint64_t maxCopy = 256U << 20;      // bytes of a blob that the service copies before it responds
constexpr std::uint64_t minBlockSize = 5U << 20;   // bytes; the service takes smaller ones, but has room for 50,000
constexpr std::uint64_t maxResent = 64U << 20;     // bytes of a block that is sent again when some of it changes;
                                                   // so no larger ones are made by copies
constexpr std::uint64_t maxBlockSize = 4'000ULL << 20U;
constexpr std::size_t maxBlocks = 50'000; // of a blob

void addCondition(HttpHeaders& headers, const WriteCondition& condition)
{
    if (condition)
    {
        condition->empty() ? headers.add("If-None-Match", "*") : headers.add("If-Match", quotedTag(*condition));
    }
}

std::string_view valueIn(const ObjectMetadata& metadata, std::string_view name)
{
    const auto found = std::ranges::find(metadata, name, &ObjectMetadata::value_type::first);
    return found == metadata.end() ? std::string_view() : found->second;
}

/// Blocks and copies must have the key of the blob.
void addScope(HttpHeaders& headers, const ObjectMetadata& metadata)
{
    if (const std::string_view scope = valueIn(metadata, encryptionScopeField); !scope.empty())
    {
        headers.add(encryptionScopeField, std::string(scope));
    }
}

} // namespace

AzureStore::AzureStore(const AzureSettings& settings)
    : m_requester(settings)
    , m_prefix(settings.prefix)
    , m_transfers(settings.transfers)
    , m_refusesCopies(!m_requester.isPrivate())
    , m_refusesTakes(!m_requester.isPrivate())
{
}

StoreAbilities AzureStore::abilities(const std::string& /*key*/) const
{
    return {.minPartSize = minBlockSize,
        .maxPartSize = maxBlockSize,
        .maxParts = maxBlocks,
        .maxObjectSize = maxBlocks * maxBlockSize,
        .maxCopySize = m_refusesCopies ? 0 : maxCopy,
        .maxTakeSize = m_refusesTakes ? 0 : maxResent,
        .takesWholeParts = true,
        .conditionalTakes = true,
        .conditionalWrites = true,
        .conditionalCreation = true,
        .conditionalCompletion = true};
}

/// Whether a response means that there is no such blob. Throw if it is a 404 for another reason.
bool AzureStore::isMissing(const AzureRequest& request, const HttpResponse& response)
{
    if (response.status != 404)
    {
        return false;
    }
    const std::string code = errorCode(response);
    if (code != "BlobNotFound" && code != "ResourceNotFound")
    {
        throwErrorResponse(m_requester.contextOf(request), response);
    }
    return true;
}

std::optional<StoredObject> AzureStore::findObject(const std::string& key)
{
    const AzureRequest request{Operation::GetObjectInfo, key, "HEAD"};
    const HttpResponse response = m_requester.send(request, {404});
    if (isMissing(request, response))
    {
        return std::nullopt;
    }
    const auto size = lengthOf(response);
    const std::string* const time = response.headers.find("Last-Modified");
    if (!size || time == nullptr)
    {
        throwMalformedResponse(m_requester.contextOf(request), response, "the response lacks length or time");
    }
    return StoredObject{{m_requester.tagIn(request, response), *size, metadataIn(response)}, readHttpTime(*time)};
}

/// Larger ranges are fetched in pieces, so that each has a hash. Otherwise a change could send wrong bytes back.
Version AzureStore::getObject(const std::string& key, const std::optional<ByteRange>& range,
    const std::optional<Version>& version, const ContentReceiver& receiver)
{
    if (!range || range->size <= maxHashedRange)
    {
        return getRange(key, range, version, receiver);
    }
    Version object = getRange(key, ByteRange{range->offset, maxHashedRange}, version, receiver);
    const std::uint64_t end = std::min(range->offset + range->size, object.size);
    for (std::uint64_t offset = range->offset + maxHashedRange; offset < end; offset += maxHashedRange)
    {
        getRange(key, ByteRange{offset, std::min(maxHashedRange, end - offset)}, object, receiver);
    }
    return object;
}

Version AzureStore::getRange(const std::string& key, const std::optional<ByteRange>& range,
    const std::optional<Version>& version, const ContentReceiver& receiver)
{
    AzureRequest request{Operation::GetObjectRange, key, "GET"};
    if (range)
    {
        request.headers.add("x-ms-range", rangeField(*range));
        request.headers.add("x-ms-range-get-content-md5", "true");
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
    return response.status == 416 ? content.finishBeyond(response, findObject(key)) : content.finish(response);
}

void AzureStore::requireBlockBlob(const AzureRequest& write, const ObjectMetadata& metadata) const
{
    if (const std::string_view type = valueIn(metadata, blobTypeField); !type.empty())
    {
        throw UnknownErrorException(
            "Not a block blob", fmt::format("{} failed: it is a {}; only block blobs can be written",
                                    m_requester.contextOf(write).action, type));
    }
}

/// The fields of a request that makes a blob with this metadata. Somebody may have set the tier or tags of its source
/// since its version was read, because that makes no new one. So these are looked up.
HttpHeaders AzureStore::headersFor(const AzureRequest& write, const WrittenMetadata& metadata)
{
    const auto stored = metadata.source.empty() ? std::nullopt : findObject(metadata.source);
    HttpHeaders headers;
    for (const auto& [name, value] : metadata.fields)
    {
        if (name != tagCountField && (!stored || (name != tierField && name != tagsField)))
        {
            headers.add(name, value);
        }
    }
    if (stored)
    {
        addTierAndTags(headers, write, *stored->version.metadata, metadata.source);
    }
    return headers;
}

/// @param metadata  of the source, as a lookup returned it
void AzureStore::addTierAndTags(
    HttpHeaders& headers, const AzureRequest& write, const ObjectMetadata& metadata, const std::string& source)
{
    if (const std::string_view tier = valueIn(metadata, tierField); !tier.empty())
    {
        headers.add(std::string(tierField), std::string(tier));
    }
    if (valueIn(metadata, tagCountField).empty())
    {
        return;
    }
    const AzureRequest request{write.operation, source, "GET", {{"comp", "tags"}}};
    const HttpResponse response = m_requester.send(request, {404});
    if (!isMissing(request, response)) // else its tags are gone, too
    {
        headers.add(tagsField, encodeQuery(m_requester.read(request, response, readTags)));
    }
}

/// Send a request that makes a blob. @return its tag
std::string AzureStore::sendWrite(AzureRequest& request, const WriteCondition& condition)
{
    addCondition(request.headers, condition);
    return m_requester.tagIn(request, m_requester.send(request));
}

std::string AzureStore::putObject(
    const std::string& key, RequestBody& body, const WriteCondition& condition, const WrittenMetadata& metadata)
{
    AzureRequest request{Operation::PutObject, key, "PUT"};
    requireBlockBlob(request, metadata.fields);
    request.headers = headersFor(request, metadata);
    request.headers.add(std::string(blobTypeField), "BlockBlob");
    request.body = &body;
    return sendWrite(request, condition);
}

void AzureStore::deleteObject(const std::string& key, const WriteCondition& condition)
{
    AzureRequest request{Operation::DeleteObject, key, "DELETE"};
    if (condition && condition->empty()) // no header says that, and there is nothing to delete
    {
        findObject(key) ? throwObjectChanged(m_requester.contextOf(request)) : void();
        return;
    }
    if (condition)
    {
        request.headers.add("If-Match", quotedTag(*condition));
    }
    const HttpResponse response = m_requester.send(request, {404});
    if (isMissing(request, response) && condition)
    {
        throwObjectChanged(m_requester.contextOf(request), response.wasSentTwice);
    }
}

std::map<std::string, std::exception_ptr> AzureStore::deleteObjects(const std::vector<std::string>& /*keys*/)
{
    throw UnsupportedOperationException("blobs are deleted one by one");
}

/// Send a request that lets the store read the version of a blob.
HttpResponse AzureStore::sendCopy(AzureRequest request, const CopySource& source, std::uint64_t size)
{
    request.source = source.key;
    request.headers.add("x-ms-source-if-match", quotedTag(source.version.tag));
    request.serverSideWork = true;
    request.serverSideBytes = size * m_transfers; // as many copies of about this size may be running
    try
    {
        return m_requester.send(request);
    }
    catch (const UnsupportedOperationException& failure)
    {
        const bool isRange = request.operation == Operation::CopyPart;
        if (!(isRange ? m_refusesTakes : m_refusesCopies).exchange(true))
        {
            getLogger().write(foundation::log::severity::warning,
                fmt::format("the server does not copy {}, so bytes are downloaded and uploaded: {}",
                    isRange ? "ranges" : "blobs", failure.detail().value_or(failure.what())));
        }
        throw;
    }
}

std::string AzureStore::copyObject(const CopySource& source, const std::string& target, const WriteCondition& condition)
{
    AzureRequest request{Operation::PutObject, target, "PUT"};
    const ObjectMetadata& metadata = *source.version.metadata;
    requireBlockBlob(request, metadata);
    addTierAndTags(request.headers, request, metadata, source.key); // the store copies all others but the scope
    addScope(request.headers, metadata);
    request.headers.add("x-ms-requires-sync", "true");
    addCondition(request.headers, condition);
    return m_requester.tagIn(request, sendCopy(request, source, source.version.size));
}

ListingPage AzureStore::listObjects(const std::string& prefix, const std::string& token, const ListOptions& options)
{
    AzureRequest request{Operation::ListObjects, "", "GET"};
    request.query = {{"restype", "container"}, {"comp", "list"}};
    const auto add = [&](const char* name, const std::string& value)
    { value.empty() ? void() : void(request.query.emplace_back(name, value)); };
    add("prefix", m_prefix + prefix);
    add("delimiter", options.delimiter);
    add("marker", token);
    add("maxresults", options.maxKeys > 0 ? std::to_string(options.maxKeys) : "");
    ListingPage page = m_requester.read(request, m_requester.send(request), readListing);
    removePrefix(page.entries, m_prefix);
    return page;
}

/// The blocks of a blob, and those that were sent for it.
AzureStore::StoredBlocks AzureStore::findBlocks(const std::string& key, Operation operation)
{
    const AzureRequest request{operation, key, "GET", {{"comp", "blocklist"}, {"blocklisttype", "all"}}};
    const HttpResponse response = m_requester.send(request, {404});
    if (isMissing(request, response))
    {
        return {};
    }
    const std::string* const tag = response.headers.find("ETag"); // the service sends it with committed blocks
    return {tag == nullptr ? "" : unquotedTag(*tag), m_requester.read(request, response, readBlockList)};
}

std::vector<std::uint64_t> AzureStore::partEnds(const std::string& key, const Version& version)
{
    const AzureRequest request{Operation::CopyPart, key, ""};
    const StoredBlocks stored = findBlocks(key, request.operation);
    const auto& blocks = stored.list.committed;
    if (!blocks.empty() && stored.tag != version.tag) // without blocks, each copy compares the version
    {
        throwObjectChanged(m_requester.contextOf(request));
    }
    const bool hasLarge = std::ranges::any_of(blocks, [](const Block& block) { return block.size > maxResent; });
    const bool canCopy = !m_refusesTakes && version.size / maxResent < maxBlocks;
    std::vector<std::uint64_t> ends;
    if (hasLarge && canCopy)
    {
        return ends; // a small change would send one of them again; copying both of its sides is faster
    }
    std::uint64_t end = 0;
    for (const Block& block : blocks)
    {
        ends.push_back(end += block.size);
    }
    return ends;
}

std::string AzureStore::createUpload(const std::string& key, const WrittenMetadata& metadata)
{
    const AzureRequest request{Operation::CreateMultipartUpload, key, ""};
    requireBlockBlob(request, metadata.fields);
    // What a change sends is looked up when it is complete, but a lack of permissions shows before bytes are sent.
    const bool isLater = metadata.source == key && valueIn(metadata.fields, tagCountField).empty();
    HttpHeaders headers = isLater ? HttpHeaders() : headersFor(request, metadata);
    const StoredBlocks stored =
        findBlocks(key, request.operation); // also of a blob that a new file replaces: see idSize
    return m_uploads.open(key, stored.tag, stored.list, metadata, std::move(headers));
}

/// A request that sends a block of an upload.
AzureRequest AzureStore::blockRequest(Operation operation, BlockUpload& upload, std::size_t number)
{
    AzureRequest request{operation, upload.key, "PUT", {{"comp", "block"}, {"blockid", upload.nextBlockId(number)}}};
    addScope(request.headers, upload.metadata.fields);
    return request;
}

std::string AzureStore::uploadPart(
    const std::string& key, const std::string& uploadId, std::size_t number, RequestBody& body)
{
    const auto upload = m_uploads.get(key, uploadId);
    if (body.size() == 0)
    {
        return upload->runOf({0, 0}); // no block; the service takes no empty ones
    }
    AzureRequest request = blockRequest(Operation::UploadPart, *upload, number);
    request.body = &body;
    m_requester.send(request);
    return request.query.back().second;
}

std::string AzureStore::takeWholeParts(const std::string& key, const std::string& uploadId, std::size_t /*number*/,
    const Version& version, const ByteRange& range)
{
    const auto upload = m_uploads.get(key, uploadId);
    if (version.tag != upload->tag)
    {
        throwObjectChanged(m_requester.contextOf({Operation::CopyPart, key, ""}));
    }
    return upload->runOf(range);
}

std::string AzureStore::takePart(const std::string& key, const std::string& uploadId, std::size_t number,
    const CopySource& source, const ByteRange& range)
{
    const auto upload = m_uploads.get(key, uploadId);
    AzureRequest request = blockRequest(Operation::CopyPart, *upload, number);
    request.headers.add("x-ms-source-range", rangeField(range));
    sendCopy(request, source, range.size);
    return request.query.back().second;
}

std::string AzureStore::completeUpload(const std::string& key, const std::string& uploadId,
    const std::vector<NumberedTag>& parts, const WriteCondition& condition)
{
    const auto upload = m_uploads.get(key, uploadId);
    const std::vector<ListedBlock> blocks = upload->listed(parts);
    // The ids of another version may be the same, with other bytes.
    const bool hasRuns = std::ranges::any_of(blocks, &ListedBlock::isCommitted);
    const WriteCondition needed = hasRuns ? upload->tag : condition;
    AzureRequest request{Operation::CompleteMultipartUpload, key, "PUT", {{"comp", "blocklist"}}};
    if (hasRuns && condition && *condition != upload->tag)
    {
        throwObjectChanged(m_requester.contextOf(request));
    }
    request.headers = upload->metadata.source == key ? headersFor(request, upload->metadata) : upload->headers;
    TextBody body(writeBlockList(blocks));
    request.body = &body;
    request.serverSideWork = true;
    std::string tag = sendWrite(request, needed);
    m_uploads.close(uploadId);
    return tag;
}

void AzureStore::abortUpload(const std::string& key, const std::string& uploadId)
{
    m_uploads.get(key, uploadId);
    m_uploads.close(uploadId); // the service drops the blocks after a week; no request does that
}

bool AzureStore::isOpen(const std::string& key, const std::string& uploadId)
{
    const auto upload = m_uploads.find(key, uploadId);
    if (!upload)
    {
        return false;
    }
    const StoredBlocks stored = findBlocks(key, Operation::CompleteMultipartUpload);
    return std::ranges::any_of(stored.list.uncommitted, [&](const Block& block) { return upload->owns(block); }) ||
           (!stored.tag.empty() && stored.tag == upload->tag); // if all parts are blocks that the blob has
}

UploadsPage AzureStore::listUploads(const std::string& /*token*/)
{
    return {m_uploads.pending(), ""};
}

/// Its MD5 is part of what is known about a blob.
bool AzureStore::isMadeOf(const std::string& key, const StoredObject& object, RequestBody& body)
{
    const AzureRequest request{Operation::PutObject, key, "HEAD"};
    const HttpResponse response = m_requester.send(request, {404});
    const std::string* const hash = response.headers.find("Content-MD5");
    return hash != nullptr && *hash == toBase64(md5(body)) && lengthOf(response) == body.size() &&
           m_requester.tagIn(request, response) == object.version.tag;
}

/// The ids of its blocks tell which upload made a blob, if one of them is the upload's own: others may list the blocks
/// that were there, too. Ends the upload if it did.
bool AzureStore::isMadeOf(const std::string& key, const StoredObject& object, const std::string& uploadId,
    const std::vector<NumberedTag>& parts)
{
    const auto upload = m_uploads.find(key, uploadId);
    if (!upload || object.version.tag == upload->tag)
    {
        return false;
    }
    const StoredBlocks stored = findBlocks(key, Operation::CompleteMultipartUpload);
    const auto& blocks = stored.list.committed;
    const bool isOwn = stored.tag == object.version.tag &&
                       std::ranges::equal(blocks, upload->listed(parts), {}, &Block::id, &ListedBlock::id) &&
                       std::ranges::any_of(blocks, [&](const Block& block) { return upload->owns(block); });
    isOwn ? m_uploads.close(uploadId) : void();
    return isOwn;
}

} // namespace storage::clients::azure
