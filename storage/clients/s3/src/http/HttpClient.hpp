#pragma once

#include "HttpFailure.hpp"
#include "HttpMessage.hpp"
#include "RequestBody.hpp"

#include <storage/clients/s3/HttpTimeouts.hpp>

#include <filesystem>
#include <functional>
#include <memory>
#include <mutex>
#include <string_view>
#include <vector>

namespace storage::clients::s3
{

/// Sends requests, one per calling thread at a time, over connections that are kept for the next one.
///
/// Certificates are always checked. Redirects are not followed: a signed request is meant for one place. Safe for
/// concurrent calls on one instance; the pool holds as many connections as there were calls at once, up to a bound.
class HttpClient
{
public:
    struct Settings
    {
        HttpTimeouts timeouts = {};
        std::filesystem::path authorities = {}; ///< PEM file in place of the system's certificate authorities
        std::function<bool()> interrupted = {}; ///< see S3Settings; null: never
    };

    /// Takes the body of an answer piece by piece. What it throws ends the request and passes to the caller.
    using Receiver = std::function<void(const HttpResponse& head, std::string_view bytes)>;

    explicit HttpClient(Settings settings);
    HttpClient(const HttpClient&) = delete;
    HttpClient& operator=(const HttpClient&) = delete;
    ~HttpClient();

    /// Send a request and wait for the whole of its answer, whatever its status.
    ///
    /// @param receiver  takes the body when the status is 200 or 206; also called once, with no bytes, for a body
    ///                  without any. The body of every other answer is kept in the response, as is every one when
    ///                  there is no receiver; at most 64 MiB of it are taken.
    /// @throws HttpFailure, and what the request's body or the receiver throws
    HttpResponse perform(const HttpRequest& request, const Receiver& receiver = {});

private:
    class Transfer;
    struct Connection;

    std::unique_ptr<Connection> acquire();
    void release(std::unique_ptr<Connection> connection);

    const Settings m_settings;
    std::mutex m_mutex;                              // innermost; never held during a request
    std::vector<std::unique_ptr<Connection>> m_idle; // guarded by m_mutex; the one used last is taken first
};

} // namespace storage::clients::s3
