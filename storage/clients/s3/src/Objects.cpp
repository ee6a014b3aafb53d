#include "Objects.hpp"

#include "PartCutting.hpp"
#include "RangeReceiver.hpp"
#include "UploadPlan.hpp"

#include "protocol/Responses.hpp"
#include <storage/clients/common/Content.hpp>
#include <storage/clients/common/KeyRules.hpp>
#include <storage/clients/common/TransientException.hpp>
#include <storage/clients/http/Hashing.hpp>
#include <storage/clients/http/Times.hpp>
#include <storage/cloudprovider/CloudExceptions.hpp>

#include <fmt/format.h>

#include <algorithm>
#include <limits>
#include <sstream>
#include <string_view>
#include <utility>

namespace storage::clients::s3
{

using namespace cloudprovider;

namespace
{

/// Whether the key is too long for any store. A lookup of such a key finds nothing, which is not a failure.
bool exceedsKeyLimit(const std::string& key)
{
    return key.size() > maxKeyBytes;
}

/// Requested when a file is opened: as many bytes as arrive in the same round trip as the head of a response.
constexpr ByteRange openingRange{0, 16 << 10};

std::string rangeField(const ByteRange& range)
{
    return fmt::format("bytes={}-{}", range.offset, range.offset + range.size - 1);
}

/// Maximum number of consecutive empty pages. Each may stand for thousands of deleted keys, so a listing may have many.
constexpr unsigned maxEmptyPages = 1000;

} // namespace

Objects::Objects(Requester& requester, VersionPins& pins, RequiredVersions& required, const S3Settings& settings)
    : m_requester(requester)
    , m_pins(pins)
    , m_required(required)
    , m_conditionalWrites(settings.capabilities.conditionalWrites)
    , m_partSize(settings.capabilities.equalParts ? std::max<std::uint64_t>(settings.partSize, minPartSize)
                                                  : settings.partSize)
{
}

std::optional<ObjectInfo> Objects::info(Operation operation, const std::string& key)
{
    if (key.empty() || exceedsKeyLimit(key)) // an empty key would be the bucket
    {
        return std::nullopt;
    }
    const S3Request request{operation, key, "HEAD"};
    HttpResponse response = m_requester.send(request, {400, 401, 403, 404});
    if (response.status >= 400 &&
        (response.status != 404 || !m_requester.sawBucket())) // a 404 may mean a missing bucket
    {
        if (!existsByGet(request))
        {
            return std::nullopt;
        }
        response = m_requester.send(request, {404}); // the GET succeeded, so the failure was temporary
    }
    if (response.status == 404)
    {
        return std::nullopt;
    }
    const auto size = lengthOf(response);
    const std::string* const tag = response.headers.find("ETag");
    const std::string* const time = response.headers.find("Last-Modified");
    if (!size || tag == nullptr || time == nullptr)
    {
        throwMalformedResponse(
            m_requester.contextOf(request), response, "the response lacks length, entity tag or time");
    }
    return ObjectInfo{true, unquotedTag(*tag), *size, readHttpTime(*time)};
}

/// Send a failed HEAD request again as GET. Only the response to a GET contains the reason, from which the requester
/// finds the bucket's region and recognises expired credentials.
///
/// @return whether there is such an object
bool Objects::existsByGet(S3Request request)
{
    request.method = "GET";
    request.headers.add("Range", "bytes=0-0");
    const HttpResponse response = m_requester.send(request, {404, 416});
    if (response.status != 404)
    {
        return true;
    }
    requireMissingKey(request, response);
    m_requester.setSawBucket();
    return false;
}

/// Throw unless the 404 means that only the object is missing.
void Objects::requireMissingKey(const S3Request& request, const HttpResponse& response)
{
    if (readError(response.body).code != "NoSuchKey")
    {
        throwErrorResponse(m_requester.contextOf(request), response);
    }
}

std::vector<ObjectEntry> Objects::list(const std::string& prefix, std::string& token, const ListOptions& options)
{
    for (unsigned pages = 0;;)
    {
        S3Request request{Operation::ListObjects, "", "GET"};
        request.query = {{"list-type", "2"}, {"encoding-type", "url"}, {"prefix", prefix}};
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
        ListingPage page = m_requester.sendAndRead(request,
            [&](const std::string& document)
            {
                ListingPage read = readListing(document);
                if ((!token.empty() && read.nextToken == token) || ++pages > maxEmptyPages)
                {
                    throw MalformedResponse("the listing does not advance");
                }
                return read;
            });
        token = std::move(page.nextToken);
        if (!page.entries.empty() || token.empty())
        {
            return std::move(page.entries);
        }
    }
}

void Objects::remove(const std::string& key)
{
    if (key.empty() || exceedsKeyLimit(key)) // an empty key would be the bucket
    {
        return;
    }
    S3Request request{Operation::DeleteObject, key, "DELETE"};
    const auto required = m_required.find(key);
    const bool mayBeDone = m_required.isOutcomeUnknown(key);
    if (required && (!m_conditionalWrites || required->empty() || mayBeDone))
    {
        const auto stored = info(request.operation.value(), key);
        if (!stored && mayBeDone)
        {
            return;
        }
        checkRequiredVersion(key, required, stored ? stored->tag : "");
    }
    if (required && !required->empty() && m_conditionalWrites)
    {
        request.headers.add("If-Match", quotedTag(*required));
    }
    try
    {
        const HttpResponse response = m_requester.send(request, {404, 412});
        if (response.status == 404)
        {
            requireMissingKey(request, response);
        }
        const bool wasOther = response.status == 412 || (response.status == 404 && !required.value_or("").empty());
        // If it was sent twice, the first one may have removed the object.
        if (wasOther && !(response.wasSentTwice && !info(*request.operation, key)))
        {
            throwOtherVersion(key, required.value_or(""));
        }
    }
    catch (const TransientException&)
    {
        m_required.setOutcomeUnknown(key);
        throw;
    }
}

void Objects::read(const std::string& key, std::ostream& out, std::uint64_t first, std::uint64_t last)
{
    if (last < first)
    {
        return;
    }
    if (key.empty() || exceedsKeyLimit(key)) // an empty key would be a listing
    {
        throw ResourceNotFoundException("getObjectRange of " + quoted(key) + " failed: there is no such object");
    }
    if (last == std::numeric_limits<std::uint64_t>::max()) // beyond any object, and sums with it would overflow
    {
        throwBeyondEnd(key, {first, last - first + 1});
    }
    const bool isWhole = first == 0 && last == 0;
    const auto range = isWhole ? std::nullopt : std::optional(ByteRange{first, last - first + 1});
    m_pins.read(key,
        [&](const std::optional<Version>& version)
        {
            if (version && first == 0 && (isWhole || last + 1 == version->size))
            {
                if (const auto content = m_contents.take(key, version->tag))
                {
                    writeContent(key, out, content->data(), content->size());
                    return true;
                }
            }
            return readVersion(Operation::GetObjectRange, key, out, range, version);
        });
}

bool Objects::readVersion(Operation operation, const std::string& key, std::ostream& out,
    const std::optional<ByteRange>& range, const std::optional<Version>& version)
{
    S3Request request{operation, key, "GET"};
    if (range)
    {
        request.headers.add("Range", rangeField(*range));
    }
    if (version)
    {
        request.headers.add("If-Match", quotedTag(version->tag));
    }
    RangeReceiver receiver(key, m_requester.contextOf(request), out, range, version);
    try
    {
        const HttpResponse response = m_requester.send(
            request, {412, 416}, [&](const HttpResponse& head, std::string_view bytes) { receiver.take(head, bytes); });
        if (response.status == 412)
        {
            return false;
        }
        if (response.status == 416 && range)
        {
            throwBeyondEnd(key, *range);
        }
        receiver.finish(response);
        return true;
    }
    catch (const VersionMismatch&)
    {
        return false;
    }
}

void Objects::put(const std::string& key, std::istream& content, std::uint64_t size)
{
    checkKey(key);
    VersionPins::Write write(m_pins, key);
    StreamBody body(key, content, size);
    S3Request request{Operation::PutObject, key, "PUT"};
    request.body = &body;
    if (const auto required = m_required.find(key))
    {
        putAs(*required, request, write);
        return;
    }
    const HttpResponse response = m_requester.send(request);
    write.succeeded({m_requester.sentTag(request, response), size});
}

/// Put the object if it has the required version. Its entity tag tells whether an earlier attempt, whose response was
/// lost, has stored it.
void Objects::putAs(const std::string& required, S3Request& request, VersionPins::Write& write)
{
    RequestBody& body = *request.body;
    const auto isDone = [&](const std::optional<ObjectInfo>& stored)
    { return stored && m_required.isOutcomeUnknown(request.key) && stored->tag == toHex(md5(body)); };
    if (!m_conditionalWrites || m_required.isOutcomeUnknown(request.key))
    {
        const auto stored = info(Operation::PutObject, request.key);
        if (isDone(stored))
        {
            write.succeeded({stored->tag, body.size()});
            return;
        }
        checkRequiredVersion(request.key, required, stored ? stored->tag : "");
    }
    if (!required.empty() && m_conditionalWrites)
    {
        request.headers.add("If-Match", quotedTag(required));
    }
    try
    {
        const auto send = [&] { return m_requester.sentTag(request, m_requester.send(request)); };
        write.succeeded({required.empty() ? sendToCreate(request, send) : send(), body.size()});
    }
    catch (const TransientException&)
    {
        m_required.setOutcomeUnknown(request.key);
        throw;
    }
    catch (const PreconditionFailed&)
    {
        body.wasSentTwice() ? m_required.setOutcomeUnknown(request.key) : void();
        const auto stored = info(Operation::PutObject, request.key);
        if (!isDone(stored))
        {
            throwOtherVersion(request.key, required);
        }
        write.succeeded({stored->tag, body.size()});
    }
}

std::vector<PartInfo> Objects::parts(const std::string& key)
{
    VersionPins::Opening opening(m_pins, key);
    const auto object = key.empty() || exceedsKeyLimit(key) ? std::nullopt : fetchBeginning(key);
    if (!object)
    {
        throw ResourceNotFoundException("getObjectParts of " + quoted(key) + " failed: there is no such object");
    }
    opening.opened(*object);
    return cutIntoParts(object->size, object->tag, m_partSize);
}

/// Fetch an object's version together with its first bytes, and keep those if they are the whole content: a file that
/// is opened is usually read.
///
/// @return nothing when there is no such object
std::optional<Version> Objects::fetchBeginning(const std::string& key)
{
    S3Request request{Operation::GetObjectParts, key, "GET"};
    request.headers.add("Range", rangeField(openingRange));
    std::ostringstream content;
    RangeReceiver receiver(
        key, m_requester.contextOf(request), content, openingRange, std::nullopt, RangeReceiver::End::MayExceedObject);
    const HttpResponse response = m_requester.send(
        request, {404, 416}, [&](const HttpResponse& head, std::string_view bytes) { receiver.take(head, bytes); });
    if (response.status == 404)
    {
        requireMissingKey(request, response);
        return std::nullopt;
    }
    if (response.status == 416) // the object is empty
    {
        const auto object = info(Operation::GetObjectParts, key);
        return object ? std::optional(Version{object->tag, object->size}) : std::nullopt;
    }
    if (receiver.finish(response) == receiver.object().size)
    {
        m_contents.keep(key, receiver.object().tag, std::move(content).str());
    }
    return receiver.object();
}

} // namespace storage::clients::s3
