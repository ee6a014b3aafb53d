#pragma once

#include <boost/asio/ip/tcp.hpp>
#include <boost/asio/ssl/context.hpp>
#include <boost/beast/core/flat_buffer.hpp>
#include <boost/beast/http/message.hpp>
#include <boost/beast/http/string_body.hpp>

#include <chrono>
#include <condition_variable>
#include <cstddef>
#include <functional>
#include <list>
#include <mutex>
#include <optional>
#include <string>
#include <thread>
#include <utility>
#include <vector>

namespace storage::clients::test
{

/// method_string(), target() as it came, fields in order and by name without case, body().
using Request = boost::beast::http::request<boost::beast::http::string_body>;

/// How a server responds to a request, or fails to.
struct Reply
{
    enum class Then
    {
        Keep,  ///< the connection, for the next request
        Close, ///< the connection, without having announced it
        Reset  ///< the connection, so that the client sees an error instead of an end
    };

    int status = 200;
    std::vector<std::pair<std::string, std::string>> fields = {}; ///< may have a Content-Length that is wrong
    std::string body = {};                                        ///< counted but not sent in response to HEAD
    Then then = Then::Keep;
    bool isRaw = false;                 ///< send the body and nothing else
    std::chrono::milliseconds delay{0}; ///< before the first byte

    static Reply raw(std::string bytes, Then then) { return {.body = std::move(bytes), .then = then, .isRaw = true}; }
    static Reply reset() { return raw({}, Then::Reset); }
    static Reply stall() { return {.delay = std::chrono::hours(1)}; } // the server ends earlier

    /// The store's response that reports a failure.
    static Reply error(int status, const std::string& code)
    {
        return {.status = status, .body = "<Error><Code>" + code + "</Code></Error>"};
    }
};

/// An HTTP/1.1 server on a free port of 127.0.0.1, with a thread for each connection.
///
/// Safe for concurrent calls on one instance.
class LoopbackServer
{
public:
    /// Called by many threads at once, for each connection by one. Must not throw.
    using Handler = std::function<Reply(const Request&)>;

    /// @param certificateFile  not empty: serve https with a new certificate for 127.0.0.1, which is its own authority,
    ///                         and write the certificate and its key to this file
    /// @param pace  time that passes before each read of at most 64 KiB. If it is not 0, the system buffers little.
    explicit LoopbackServer(
        Handler handler, const std::string& certificateFile = {}, std::chrono::milliseconds pace = {});
    LoopbackServer(const LoopbackServer&) = delete;
    LoopbackServer& operator=(const LoopbackServer&) = delete;

    /// End all connections, stalled ones included. Waits for running handlers.
    ~LoopbackServer();

    /// "http://127.0.0.1:PORT"
    std::string url() const;

    /// The requests received so far, whole ones only, in order of arrival.
    std::vector<Request> requests() const;

    /// The number of connections accepted so far.
    std::size_t connections() const;

private:
    using Tcp = boost::asio::ip::tcp;

    struct Connection
    {
        Tcp::socket socket; // closed under m_mutex: its descriptor is not reused before the shutdown
        std::jthread thread = {};
    };

    void accept();
    void serve(Connection& connection);
    template <typename Stream>
    Reply::Then talk(Stream& stream); // returns how to end the connection
    Reply replyTo(const Request& request);
    void sleep(std::chrono::milliseconds time); // ends earlier with the server

    const Handler m_handler;
    const std::chrono::milliseconds m_pace;
    std::optional<boost::asio::ssl::context> m_tls;
    boost::asio::io_context m_context; // its sockets are used synchronously; it never runs
    Tcp::acceptor m_acceptor;

    mutable std::mutex m_mutex;
    std::condition_variable m_ending;
    bool m_isEnding = false; // guarded by m_mutex, as is all below
    std::vector<Request> m_requests;
    std::list<Connection> m_connections; // including those that have ended; the destructor waits for their threads

    std::jthread m_thread; // accepts; last: the destructor waits for it first
};

} // namespace storage::clients::test
