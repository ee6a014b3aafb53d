#pragma once

#include "ContainerAddress.hpp"
#include "StoreFailures.hpp"

#include <storage/clients/azure/AzureSettings.hpp>
#include <storage/clients/common/Operation.hpp>
#include <storage/clients/http/HttpClient.hpp>
#include <storage/clients/http/UriEncoding.hpp>
#include <storage/clients/http/XmlDocument.hpp>

#include <atomic>
#include <cstdint>
#include <initializer_list>
#include <memory>
#include <string>

namespace storage::clients::azure
{

/// One request to the container, before it is authorised.
struct AzureRequest
{
    Operation operation; ///< the caller's, for messages
    std::string key;     ///< empty: the request is for the container itself
    std::string method;
    QueryParameters query = {};
    HttpHeaders headers = {};
    RequestBody* body = nullptr;       ///< borrowed; null: none
    std::string source = {};           ///< key of the blob that is copied; empty: none
    bool serverSideWork = false;       ///< the store moves bytes internally before it responds
    std::uint64_t serverSideBytes = 0; ///< how many, including those of concurrent requests; 0: few
};

/// Authorises and sends requests to one container, and translates failures into exceptions.
///
/// If the store refuses a token, the request is sent again with a new one, once. Transient failures are left to callers
/// that retry operations. Safe for concurrent calls.
class Requester
{
public:
    /// @throws cloudprovider::InvalidLocationException when the settings are not a valid address
    explicit Requester(const AzureSettings& settings);

    /// Send a request.
    ///
    /// @param accepted  statuses besides 2xx that are not failures
    /// @throws cloudprovider::CloudException, also TransientException; and whatever the body or the receiver throws
    HttpResponse send(const AzureRequest& request, std::initializer_list<int> accepted = {},
        const HttpClient::Receiver& receiver = {});

    /// Parse the document in the response to a request.
    template <typename Read>
    auto read(const AzureRequest& request, const HttpResponse& response, Read&& read)
    {
        try
        {
            return read(response);
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

    /// Whether requests are encrypted, or stay on this machine.
    bool isPrivate() const noexcept { return m_isPrivate; }

    /// Return the entity tag in a response, without quotes.
    std::string tagIn(const AzureRequest& request, const HttpResponse& response) const;

    /// What messages say about a request.
    FailureContext contextOf(const AzureRequest& request) const;

private:
    HttpResponse sendOnce(
        const AzureRequest& request, const Credentials& credentials, const HttpClient::Receiver& receiver);

    const std::shared_ptr<CredentialsSource> m_credentials;
    HttpClient m_http;
    const HttpTimeouts m_timeouts;
    const ContainerAddress m_address;
    const bool m_isPrivate;
    std::atomic<bool> m_wasReached = false;
    std::atomic<bool> m_isAnonymous = false; // of the last request; for messages
};

} // namespace storage::clients::azure
