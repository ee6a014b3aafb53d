#pragma once

#include "BucketAddress.hpp"
#include "StoreFailures.hpp"

#include <storage/clients/common/Operation.hpp>
#include <storage/clients/http/HttpClient.hpp>
#include <storage/clients/http/UriEncoding.hpp>
#include <storage/clients/s3/S3Settings.hpp>

#include <atomic>
#include <initializer_list>
#include <memory>
#include <mutex>
#include <optional>
#include <string>

namespace storage::clients::s3
{

/// One request to the bucket, before it is signed.
struct S3Request
{
    std::optional<Operation> operation; ///< the caller's, for messages; empty: listing the open uploads
    std::string key;                    ///< empty: the request is for the bucket itself, or for many keys
    std::string method;
    QueryParameters query = {};
    HttpHeaders headers = {};
    RequestBody* body = nullptr;       ///< borrowed; null: none
    bool needsMd5 = false;             ///< the store demands the MD5 of the body
    bool uninterruptible = false;      ///< see HttpRequest
    bool cleansUp = false;             ///< HttpTimeouts::cleanUp limits it
    bool serverSideWork = false;       ///< the store moves bytes internally before it responds
    std::uint64_t serverSideBytes = 0; ///< how many, including those of concurrent requests; 0: few
};

/// Signs and sends requests to one bucket, and translates failures into exceptions.
///
/// If the bucket turns out to be in another region, the request is sent again there, once. If the store calls the
/// credentials expired, it is sent again with new ones, once. If it demands the MD5 of a body, as for buckets with
/// Object Lock, all bodies from then on have one. Other transient failures are left to callers that retry operations.
/// Safe for concurrent calls.
class Requester
{
public:
    explicit Requester(const S3Settings& settings);

    /// Send a request.
    ///
    /// @param accepted  statuses besides 2xx that are not failures
    /// @throws cloudprovider::CloudException, also TransientException; and whatever the body or the receiver throws
    HttpResponse send(
        const S3Request& request, std::initializer_list<int> accepted = {}, const HttpClient::Receiver& receiver = {});

    /// Send a request and parse the document in its response. An error document with a successful status is a failure.
    template <typename Read>
    auto sendAndRead(const S3Request& request, Read&& read)
    {
        const HttpResponse response = send(request);
        try
        {
            return read(response.body);
        }
        catch (const ErrorResponse& failure)
        {
            throwErrorResponse(contextOf(request), response, failure.error());
        }
        catch (const MalformedResponse& failure)
        {
            throwMalformedResponse(contextOf(request), response, failure.what());
        }
        catch (const HttpFailure& failure)
        {
            throwNoResponse(contextOf(request), failure);
        }
    }

    /// Return the entity tag that the store gave to the request body, without quotes.
    std::string sentTag(const S3Request& request, const HttpResponse& response);

    /// What messages say about a request.
    FailureContext contextOf(const S3Request& request);

    std::string copySource(const std::string& key) { return address().copySource(key); }

    /// Whether any response has shown that the bucket exists.
    bool sawBucket() const noexcept { return m_sawBucket; }
    void setSawBucket() noexcept { m_sawBucket = true; }

private:
    BucketAddress address();
    void addSettings(const S3Request& request, HttpHeaders& headers) const;
    HttpResponse sendOnce(
        const S3Request& request, const BucketAddress& address, bool withMd5, const HttpClient::Receiver& receiver);
    bool followRegion(const HttpResponse& response, const BucketAddress& requested);

    const std::shared_ptr<CredentialsSource> m_credentials;
    HttpClient m_http;
    const HttpTimeouts m_timeouts;
    const ObjectSettings m_objects;
    std::atomic<bool> m_wasReached = false;
    std::atomic<bool> m_sawBucket = false;
    std::atomic<bool> m_needsMd5 = false; // the store has refused a body without its MD5
    std::mutex m_mutex;                   // innermost; never held during a request
    BucketAddress m_address;              // guarded by m_mutex
    std::string m_lastKeyId;              // guarded by m_mutex; for messages
};

} // namespace storage::clients::s3
