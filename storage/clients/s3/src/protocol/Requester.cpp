#include "Requester.hpp"

#include "signing/RequestSigner.hpp"
#include <storage/clients/common/KeyRules.hpp>
#include <storage/clients/http/Hashing.hpp>
#include <storage/clients/http/ResponseFields.hpp>

#include <boost/algorithm/string/predicate.hpp>

#include <fmt/format.h>

#include <algorithm>
#include <ctime>

namespace storage::clients::s3
{

namespace
{

constexpr const char* hashOfNothing = "e3b0c44298fc1c149afbf4c8996fb92427ae41e4649b934ca495991b7852b855";

bool isExpiryCode(const std::string& code)
{
    return code == "ExpiredToken" || code == "TokenRefreshRequired" || code == "InvalidToken";
}

/// Whether the store has refused a request only because it lacks the MD5 of its body. There is no code for that.
bool demandsMd5(const HttpResponse& response)
{
    return response.status == 400 && boost::algorithm::icontains(readError(response.body).message, "Content-MD5");
}

/// Whether a response with a successful status reports a failure. A store that has already sent the status can only
/// report one in the document.
bool hasErrorDocument(const S3Request& request, const HttpResponse& response)
{
    const bool isShort = request.method == "PUT" || request.method == "DELETE";
    return isShort && isError(response.body);
}

} // namespace

Requester::Requester(const S3Settings& settings)
    : m_credentials(settings.credentials
                        ? settings.credentials
                        : defaultCredentials(settings.profile, settings.authorities, settings.interrupted))
    , m_http({settings.timeouts, settings.authorities, settings.interrupted})
    , m_timeouts(settings.timeouts)
    , m_objects(settings.objects)
    , m_address(settings)
{
}

std::string Requester::sentTag(const S3Request& request, const HttpResponse& response)
{
    const std::string* const field = response.headers.find("ETag");
    std::string tag = field == nullptr ? "" : unquotedTag(*field);
    if (tag.empty())
    {
        throwMalformedResponse(contextOf(request), response, "the response lacks the entity tag");
    }
    return tag;
}

BucketAddress Requester::address()
{
    const std::lock_guard lock(m_mutex);
    return m_address;
}

FailureContext Requester::contextOf(const S3Request& request)
{
    const std::lock_guard lock(m_mutex);
    const std::string action = request.operation ? std::string(name(*request.operation)) : "listing the open uploads";
    return {{action + (request.key.empty() ? "" : " of " + quoted(request.key)), m_address.origin(), "x-amz-request-id",
                m_wasReached, hasCondition(request.headers), m_lastKeyId.empty()},
        m_address.bucket(), m_address.endpointPath(), m_lastKeyId};
}

HttpResponse Requester::send(
    const S3Request& request, std::initializer_list<int> accepted, const HttpClient::Receiver& receiver)
{
    const auto isGood = [&](const HttpResponse& response)
    {
        return (response.status / 100 == 2 && !hasErrorDocument(request, response)) ||
               std::find(accepted.begin(), accepted.end(), response.status) != accepted.end();
    };
    try
    {
        bool hasFollowedRegion = false;
        bool hasRefreshed = false;
        for (;;)
        {
            const BucketAddress requested = address();
            const bool hasMd5 = request.needsMd5 || (request.body != nullptr && m_needsMd5);
            HttpResponse response = sendOnce(request, requested, hasMd5, receiver);
            if (isGood(response))
            {
                m_sawBucket = m_sawBucket || response.status / 100 == 2;
                return response;
            }
            if (!hasFollowedRegion && followRegion(response, requested))
            {
                hasFollowedRegion = true;
            }
            else if (!hasRefreshed && isExpiryCode(readError(response.body).code))
            {
                m_credentials->refresh();
                hasRefreshed = true;
            }
            else if (request.body != nullptr && !hasMd5 && demandsMd5(response))
            {
                m_needsMd5 = true;
            }
            else
            {
                throwErrorResponse(contextOf(request), response);
            }
        }
    }
    catch (const HttpFailure& failure)
    {
        throwNoResponse(contextOf(request), failure);
    }
}

/// Add the fields for ObjectSettings. Stores refuse some of them in requests where they have no meaning.
void Requester::addSettings(const S3Request& request, HttpHeaders& headers) const
{
    const auto add = [&](const std::string& name, const std::string& value)
    { value.empty() ? void() : headers.add(name, value); };
    const auto addCustomerKey = [&](const std::string& prefix)
    {
        headers.add(prefix + "algorithm", "AES256");
        headers.add(prefix + "key", toBase64(m_objects.customerKey));
        headers.add(prefix + "key-MD5", toBase64(md5(m_objects.customerKey)));
    };
    add("x-amz-request-payer", m_objects.requesterPays ? "requester" : "");
    if (!request.query.empty() && request.query.front().first == "tagging")
    {
        return; // tags are not encrypted
    }
    if (request.operation == Operation::PutObject || request.operation == Operation::CreateMultipartUpload)
    {
        add("x-amz-server-side-encryption", m_objects.encryption);
        add("x-amz-server-side-encryption-aws-kms-key-id", m_objects.encryptionKey);
    }
    if (!m_objects.customerKey.empty() && !request.key.empty() && request.method != "DELETE")
    {
        addCustomerKey("x-amz-server-side-encryption-customer-");
        if (headers.find("x-amz-copy-source") != nullptr)
        {
            addCustomerKey("x-amz-copy-source-server-side-encryption-customer-");
        }
    }
}

HttpResponse Requester::sendOnce(
    const S3Request& request, const BucketAddress& address, bool withMd5, const HttpClient::Receiver& receiver)
{
    const SigningContext context{address.host(), address.path(request.key), encodeQuery(request.query),
        request.body == nullptr ? hashOfNothing : sha256Hex(*request.body), address.region(), std::time(nullptr)};
    HttpRequest http{request.method,
        address.origin() + context.path + (context.query.empty() ? "" : "?" + context.query), request.headers,
        request.body};
    addSettings(request, http.headers);
    http.uninterruptible = request.uninterruptible;
    if (request.serverSideWork)
    {
        allowServerSideWork(http, m_timeouts, request.serverSideBytes);
    }
    if (request.cleansUp)
    {
        http.deadline = m_timeouts.cleanUp;
    }
    const Credentials credentials = m_credentials->credentials();
    if (withMd5 || (credentials.isAnonymous() && request.body != nullptr)) // the signature checks only the SHA-256
    {
        http.headers.add("Content-MD5", toBase64(md5(*request.body)));
    }
    sign(http, context, credentials);
    {
        const std::lock_guard lock(m_mutex);
        m_lastKeyId = credentials.keyId;
    }
    HttpResponse response = m_http.perform(http, receiver);
    m_wasReached = true;
    return response;
}

bool Requester::followRegion(const HttpResponse& response, const BucketAddress& requested)
{
    if (response.status != 301 && response.status != 307 && response.status != 400)
    {
        return false;
    }
    const std::string* const field = response.headers.find("x-amz-bucket-region");
    const std::string region = field != nullptr ? *field : readError(response.body).region;
    if (region.empty() || region == requested.region())
    {
        return false;
    }
    const std::lock_guard lock(m_mutex);
    m_address = m_address.inRegion(region);
    return true;
}

} // namespace storage::clients::s3
