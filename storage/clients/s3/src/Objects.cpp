#include "Objects.hpp"

#include "PartCutting.hpp"
#include "RangeReceiver.hpp"

#include "protocol/Responses.hpp"
#include "protocol/Times.hpp"

#include <storage/clients/common/Content.hpp>
#include <storage/clients/common/KeyRules.hpp>
#include <storage/clients/common/TransientException.hpp>
#include <storage/cloudprovider/CloudExceptions.hpp>

#include <fmt/format.h>

#include <limits>
#include <sstream>
#include <string_view>
#include <utility>

namespace storage::clients::s3
{

using namespace cloudprovider;

namespace
{

/// Whether no store can hold such a key. A lookup that says so by itself finds nothing, and that is no failure.
bool exceedsKeyLimit(const std::string& key)
{
    return key.size() > maxKeyBytes;
}

/// Bytes that are asked for when a file is opened: no more than arrive in the same round trip as the head of an answer.
constexpr ByteRange beginning{0, 16 << 10};

std::string rangeField(const ByteRange& range)
{
    return fmt::format("bytes={}-{}", range.offset, range.offset + range.size - 1);
}

/// In a row. Each may stand for some thousand keys that are gone, so one listing may well have many.
constexpr unsigned maxEmptyPages = 1000;

} // namespace

std::optional<ObjectInfo> Objects::info(Operation operation, const std::string& key)
{
    if (key.empty() || exceedsKeyLimit(key)) // an empty key would be the bucket
    {
        return std::nullopt;
    }
    const S3Request request{operation, key, "HEAD"};
    HttpResponse response = m_requester.send(request, {400, 401, 403, 404});
    if (response.status >= 400 && (response.status != 404 || !m_requester.sawBucket())) // or the bucket is misspelt
    {
        if (!existsByGet(request))
        {
            return std::nullopt;
        }
        response = m_requester.send(request, {404}); // what was wrong has been mended meanwhile
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
        throwMalformedResponse(m_requester.contextOf(request), response, "the answer lacks length, entity tag or time");
    }
    return ObjectInfo{true, unquotedTag(*tag), *size, readHttpTime(*time)};
}

/// Ask with GET what HEAD was refused. Only then is there a document that says why, from which the bucket is followed
/// into its region and expired credentials are known as such.
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

/// Throw unless a 404 means that the object, and nothing else, is missing.
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
                    throw MalformedResponse("the listing does not go on");
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
    const KnownVersions::Write write(m_versions, key);
    const S3Request request{Operation::DeleteObject, key, "DELETE"};
    const HttpResponse response = m_requester.send(request, {404});
    if (response.status == 404)
    {
        requireMissingKey(request, response);
    }
}

std::uint64_t Objects::read(const std::string& key, std::ostream& out, std::uint64_t first, std::uint64_t last)
{
    if (last < first)
    {
        return 0;
    }
    if (key.empty() || exceedsKeyLimit(key)) // an empty key would be a listing
    {
        throw ResourceNotFoundException("getObjectRange of " + quoted(key) + " failed: there is no such object");
    }
    if (last == std::numeric_limits<std::uint64_t>::max()) // no object has it, and sums with it would wrap
    {
        throwBeyondEnd(key, {first, last - first + 1});
    }
    const KnownVersions::Observation observation(m_versions, key);
    const auto version = m_versions.current(key);
    const bool isWhole = first == 0 && last == 0;
    const auto range = isWhole ? std::nullopt : std::optional(ByteRange{first, last - first + 1});
    if (version && first == 0 && (isWhole || last + 1 == version->size))
    {
        if (const auto content = m_contents.take(key, version->tag))
        {
            writeContent(key, out, content->data(), content->size());
            return content->size();
        }
    }
    if (const auto size = readVersion(Operation::GetObjectRange, key, out, range, version))
    {
        return *size;
    }
    // A whole object in one answer is one version in any case. When it was this process that replaced it meanwhile,
    // the one that is there now will do.
    if (isWhole && observation.sawWrite())
    {
        if (const auto size = readVersion(Operation::GetObjectRange, key, out, range, std::nullopt))
        {
            return *size;
        }
    }
    throwObjectChanged(m_requester.contextOf({Operation::GetObjectRange, key, "GET"}));
}

std::optional<std::uint64_t> Objects::readVersion(Operation operation, const std::string& key, std::ostream& out,
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
            return std::nullopt;
        }
        if (response.status == 416 && range)
        {
            throwBeyondEnd(key, *range);
        }
        return receiver.finish(response);
    }
    catch (const VersionMismatch&)
    {
        return std::nullopt;
    }
}

void Objects::put(const std::string& key, std::istream& content, std::uint64_t size)
{
    checkKey(key);
    KnownVersions::Write write(m_versions, key);
    try
    {
        StreamBody body(key, content, size);
        S3Request request{Operation::PutObject, key, "PUT"};
        request.body = &body;
        const HttpResponse response = m_requester.send(request);
        write.succeeded({m_requester.sentTag(request, response), size});
    }
    catch (const TransientException&)
    {
        throw; // it may have been stored all the same
    }
    catch (...)
    {
        write.changedNothing();
        throw;
    }
}

std::vector<PartInfo> Objects::parts(const std::string& key)
{
    KnownVersions::Observation observation(m_versions, key);
    const auto object = key.empty() || exceedsKeyLimit(key) ? std::nullopt : fetchBeginning(key);
    if (!object)
    {
        throw ResourceNotFoundException("getObjectParts of " + quoted(key) + " failed: there is no such object");
    }
    observation.opened(*object);
    return cutIntoParts(object->size, object->tag, m_partSize);
}

/// Ask what an object is with its first bytes, and keep them if they are all: whoever opens a file reads it, mostly.
///
/// @return nothing when there is no such object
std::optional<Version> Objects::fetchBeginning(const std::string& key)
{
    S3Request request{Operation::GetObjectParts, key, "GET"};
    request.headers.add("Range", rangeField(beginning));
    std::ostringstream content;
    RangeReceiver receiver(
        key, m_requester.contextOf(request), content, beginning, std::nullopt, RangeReceiver::End::MayExceedObject);
    const HttpResponse response = m_requester.send(
        request, {404, 416}, [&](const HttpResponse& head, std::string_view bytes) { receiver.take(head, bytes); });
    if (response.status == 404)
    {
        requireMissingKey(request, response);
        return std::nullopt;
    }
    if (response.status == 416) // it has no first byte
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
