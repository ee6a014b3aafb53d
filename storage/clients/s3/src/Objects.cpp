#include "Objects.hpp"

#include "PartCutting.hpp"

#include "protocol/Answers.hpp"
#include "protocol/Times.hpp"
#include "signing/Hashing.hpp"

#include <storage/clients/common/Content.hpp>
#include <storage/clients/common/KeyRules.hpp>
#include <storage/clients/common/TransientException.hpp>
#include <storage/cloudprovider/CloudExceptions.hpp>

#include <fmt/format.h>

#include <string_view>

namespace storage::clients::s3
{

using namespace cloudprovider;

namespace
{

std::optional<std::uint64_t> lengthOf(const HttpResponse& response)
{
    const std::string* const field = response.headers.find("Content-Length");
    return field == nullptr ? std::nullopt : readNumber(*field);
}

/// Whether no store can hold such a key. A lookup that says so by itself finds nothing, and that is no failure.
bool isBeyondEveryStore(const std::string& key)
{
    return key.size() > maxKeyBytes;
}

/// In a row. Each may stand for some thousand keys that are gone, so one listing may well have many.
constexpr unsigned mostEmptyPages = 1000;

/// The object is not the version that was asked for; nothing of it was taken.
struct OtherVersion
{
};

[[noreturn]] void throwBeyondEnd(const std::string& key, std::uint64_t first, std::uint64_t last)
{
    throw UnknownErrorException("Invalid range",
        fmt::format("bytes {} to {} of {} end beyond the object, which has become shorter", first, last, quoted(key)));
}

/// The MD5 of an object's bytes; empty where its tag is something else: that of an object made of parts, or encrypted
/// with a key of somebody's own.
std::string hashIn(const HttpResponse& head, const std::string& tag)
{
    const std::string* const encryption = head.headers.find("x-amz-server-side-encryption");
    const bool hasKey = head.headers.find("x-amz-server-side-encryption-customer-algorithm") != nullptr ||
                        (encryption != nullptr && *encryption != "AES256");
    const std::string hash = fromHex(tag);
    return hasKey || hash.size() != 16 ? "" : hash;
}

/// Hands the bytes of one good answer on, once its head has shown that they are those asked for.
class RangeReceiver
{
public:
    RangeReceiver(const S3Request& request, FailureContext context, std::ostream& out, std::optional<Version> version,
        std::optional<ByteRange> range)
        : m_key(request.key)
        , m_context(std::move(context))
        , m_out(out)
        , m_version(std::move(version))
        , m_range(range)
    {
    }

    void take(const HttpResponse& head, std::string_view bytes)
    {
        if (!m_expected)
        {
            check(head);
        }
        if (m_hash)
        {
            m_hash->add(bytes);
        }
        writeContent(m_key, m_out, bytes.data(), bytes.size());
        m_received += bytes.size();
    }

    std::uint64_t finish(const HttpResponse& response)
    {
        if (!m_expected || m_received != *m_expected)
        {
            throwBroken(
                m_context, response, fmt::format("{} bytes came instead of {}", m_received, m_expected.value_or(0)));
        }
        if (m_hash && m_hash->finish() != m_expectedHash)
        {
            throwBroken(m_context, response, "the bytes are not those that the entity tag stands for");
        }
        return m_received;
    }

private:
    void check(const HttpResponse& head)
    {
        const std::string* const tag = head.headers.find("ETag");
        const auto length = lengthOf(head);
        if (tag == nullptr || !length)
        {
            throwBroken(m_context, head, "the answer lacks the entity tag or its length"); // an error document, perhaps
        }
        if (m_version && unquotedTag(*tag) != m_version->tag)
        {
            throw OtherVersion();
        }
        if (m_range)
        {
            if (head.status != 206)
            {
                throw UnsupportedOperationException(m_context.action + " failed: the store ignores ranges");
            }
            const std::string* const place = head.headers.find("Content-Range");
            const std::uint64_t last = m_range->offset + m_range->size - 1;
            if (place == nullptr || !place->starts_with(fmt::format("bytes {}-{}/", m_range->offset, last)) ||
                *length != m_range->size)
            {
                throwBeyondEnd(m_key, m_range->offset, last);
            }
        }
        m_expected = *length;
        m_expectedHash = isWhole(head) ? hashIn(head, unquotedTag(*tag)) : "";
        if (!m_expectedHash.empty())
        {
            m_hash.emplace();
        }
    }

    bool isWhole(const HttpResponse& head) const
    {
        return !m_range ||
               *head.headers.find("Content-Range") == fmt::format("bytes 0-{}/{}", m_range->size - 1, m_range->size);
    }

    const std::string& m_key;
    const FailureContext m_context;
    std::ostream& m_out;
    const std::optional<Version> m_version;
    const std::optional<ByteRange> m_range;
    std::optional<std::uint64_t> m_expected; // bytes; set once the head was found to be right
    std::uint64_t m_received = 0;
    std::string m_expectedHash;
    std::optional<Md5> m_hash; // of what was received, where the answer tells what it should be
};

} // namespace

std::optional<ObjectInfo> Objects::info(Operation operation, const std::string& key)
{
    if (key.empty() || isBeyondEveryStore(key)) // an empty key would be the bucket
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
        throwBroken(m_requester.contextOf(request), response, "the answer lacks length, entity tag or time");
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
        throwAnswered(m_requester.contextOf(request), response);
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
                if ((!token.empty() && read.nextToken == token) || ++pages > mostEmptyPages)
                {
                    throw BrokenAnswer("the listing does not go on");
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
    if (key.empty() || isBeyondEveryStore(key)) // an empty key would be the bucket
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
    if (key.empty() || isBeyondEveryStore(key)) // an empty key would be a listing
    {
        throw ResourceNotFoundException("getObjectRange of " + quoted(key) + " failed: there is no such object");
    }
    const KnownVersions::Observation observation(m_versions, key);
    const auto version = m_versions.current(key);
    const bool isWhole = first == 0 && last == 0;
    const auto range = isWhole ? std::nullopt : std::optional(ByteRange{first, last - first + 1});
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
    throwChanged(m_requester.contextOf({Operation::GetObjectRange, key, "GET"}));
}

std::optional<std::uint64_t> Objects::readVersion(Operation operation, const std::string& key, std::ostream& out,
    const std::optional<ByteRange>& range, const std::optional<Version>& version)
{
    S3Request request{operation, key, "GET"};
    if (range)
    {
        request.headers.add("Range", fmt::format("bytes={}-{}", range->offset, range->offset + range->size - 1));
    }
    if (version)
    {
        request.headers.add("If-Match", quotedTag(version->tag));
    }
    RangeReceiver receiver(request, m_requester.contextOf(request), out, version, range);
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
            throwBeyondEnd(key, range->offset, range->offset + range->size - 1);
        }
        return receiver.finish(response);
    }
    catch (const OtherVersion&)
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
    const auto object = info(Operation::GetObjectParts, key);
    if (!object)
    {
        throw ResourceNotFoundException("getObjectParts of " + quoted(key) + " failed: there is no such object");
    }
    observation.opened({object->tag, object->size});
    return cutIntoParts(object->size, object->tag, m_partSize);
}

} // namespace storage::clients::s3
