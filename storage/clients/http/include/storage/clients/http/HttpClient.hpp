#pragma once

#include <storage/clients/http/HttpFailure.hpp>
#include <storage/clients/http/HttpMessage.hpp>
#include <storage/clients/http/HttpTimeouts.hpp>
#include <storage/clients/http/RequestBody.hpp>

#include <openssl/types.h>

#include <chrono>
#include <filesystem>
#include <functional>
#include <memory>
#include <mutex>
#include <string_view>
#include <vector>

namespace storage::clients
{

/// Sends requests, each on the calling thread, and reuses their connections.
///
/// Certificates are always checked. Redirects are not followed: a signature is valid for one host. Safe for concurrent
/// calls on one instance. Keeps as many idle connections as there were concurrent calls, up to a limit.
class HttpClient
{
public:
    struct Settings
    {
        HttpTimeouts timeouts = {};
        std::filesystem::path authorities = {}; ///< PEM file that replaces the system's certificate authorities

        /// Whether the process is interrupted. Called at least ten times a second on the thread that waits for a
        /// request. Then requests in progress are cancelled, an uninterruptible one only after HttpTimeouts::cleanUp.
        /// Only DELETE is sent from then on, because it cleans up; HttpTimeouts::cleanUp limits it. Null: never.
        std::function<bool()> interrupted = {};
    };

    /// Takes the body of a response piece by piece. An exception ends the request and reaches the caller.
    using Receiver = std::function<void(const HttpResponse& head, std::string_view bytes)>;

    explicit HttpClient(Settings settings);
    HttpClient(const HttpClient&) = delete;
    HttpClient& operator=(const HttpClient&) = delete;
    ~HttpClient();

    /// Send a request and wait for the whole response, whatever its status.
    ///
    /// @param receiver  takes the body when the status is 200 or 206; called once without bytes when such a body is
    ///                  empty. Every other body, or every body when there is no receiver, is in the returned response;
    ///                  it may have at most 64 MiB.
    /// @throws HttpFailure, and whatever the request's body or the receiver throws
    HttpResponse perform(const HttpRequest& request, const Receiver& receiver = {});

private:
    class Transfer;
    struct Connection;

    std::shared_ptr<X509_STORE> authorities();
    std::unique_ptr<Connection> acquire();
    void release(std::unique_ptr<Connection> connection);

    const Settings m_settings;
    std::mutex m_mutex;                              // innermost; never held during a request; guards everything below
    std::vector<std::unique_ptr<Connection>> m_idle; // the last one is reused first
    std::shared_ptr<X509_STORE> m_authorities;       // null: no request has used TLS
    std::chrono::steady_clock::time_point m_authoritiesRead;
};

} // namespace storage::clients
