#pragma once

#include "BucketAddress.hpp"
#include "StoreFailures.hpp"

#include "http/HttpClient.hpp"
#include "signing/UriEncoding.hpp"

#include <storage/clients/common/Operation.hpp>
#include <storage/clients/s3/S3Settings.hpp>

#include <atomic>
#include <initializer_list>
#include <memory>
#include <mutex>
#include <string>

namespace storage::clients::s3
{

/// One request to the bucket, before it is signed.
struct S3Request
{
    Operation operation; ///< on whose behalf, for messages
    std::string key;     ///< empty: the bucket itself, or an operation on many keys
    std::string method;
    QueryParameters query = {};
    HttpHeaders headers = {};
    RequestBody* body = nullptr;       ///< borrowed; null: none
    bool uninterruptible = false;      ///< an interrupt waits for its end
    bool serverSideWork = false;       ///< the store moves bytes of its own before it answers
    std::uint64_t serverSideBytes = 0; ///< how many, with those of requests beside this one; 0: few
};

/// Signs requests to one bucket, sends them, and tells good answers from failures.
///
/// A bucket that turns out to be in another region is asked there, once; credentials that the store calls expired are
/// fetched anew, once. Everything else that may pass is for who repeats operations. Safe for concurrent calls.
class Requester
{
public:
    explicit Requester(const S3Settings& settings);

    /// @param accepted  statuses besides 2xx that are an answer and no failure
    /// @return the answer
    /// @throws cloudprovider::CloudException, TransientException among them, and what body or receiver throw
    HttpResponse send(
        const S3Request& request, std::initializer_list<int> accepted = {}, const HttpClient::Receiver& receiver = {});

    /// Send a request and read the document of its answer. An error document under a good status is a failure.
    template <typename Read>
    auto sendAndRead(const S3Request& request, Read&& read)
    {
        const HttpResponse response = send(request);
        try
        {
            return read(response.body);
        }
        catch (const ErrorResponse& answer)
        {
            throwErrorResponse(contextOf(request), response, answer.error());
        }
        catch (const MalformedResponse& broken)
        {
            throwMalformedResponse(contextOf(request), response, broken.what());
        }
    }

    /// The entity tag that the store has given the body of a request, without quotes.
    std::string sentTag(const S3Request& request, const HttpResponse& response);

    /// For messages about a request.
    FailureContext contextOf(const S3Request& request);

    std::string bucket() { return address().bucket(); }

    /// Whether any answer has shown that the bucket is there.
    bool sawBucket() const noexcept { return m_sawBucket; }
    void setSawBucket() noexcept { m_sawBucket = true; }

private:
    BucketAddress address();
    HttpResponse sendOnce(const S3Request& request, const BucketAddress& address, const HttpClient::Receiver& receiver);
    bool followRegion(const HttpResponse& response, const BucketAddress& asked);

    const std::shared_ptr<CredentialsSource> m_credentials;
    HttpClient m_http;
    const HttpTimeouts m_timeouts;
    std::atomic<bool> m_wasReached = false;
    std::atomic<bool> m_sawBucket = false;
    std::mutex m_mutex;      // innermost; never held during a request
    BucketAddress m_address; // guarded by m_mutex
    std::string m_lastKeyId; // guarded by m_mutex; for messages
};

} // namespace storage::clients::s3
