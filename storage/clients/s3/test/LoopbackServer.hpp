#pragma once

#include "TestCertificate.hpp"

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

/// What a server does with a request: it answers, or fails to.
struct Reply
{
    enum class Then
    {
        Keep,  ///< the connection, for the next request
        Close, ///< the connection, which the reply did not announce
        Reset, ///< the connection, so that the client sees an error instead of an end
        Stall  ///< be silent until the server ends
    };

    int status = 200;
    std::vector<std::pair<std::string, std::string>> fields = {}; ///< may have a Content-Length that is not true
    std::string body = {};                                        ///< not sent in answer to HEAD, but counted
    Then then = Then::Keep;
    bool isRaw = false;                 ///< send the body and nothing else, whatever it is
    std::chrono::milliseconds pause{0}; ///< between any two bytes of the body

    static Reply raw(std::string bytes, Then then) { return {.body = std::move(bytes), .then = then, .isRaw = true}; }
    static Reply reset() { return raw({}, Then::Reset); }
    static Reply stall() { return raw({}, Then::Stall); }
};

/// An HTTP/1.1 server on a free port of 127.0.0.1, with a thread for each connection.
///
/// Safe for concurrent calls on one instance.
class LoopbackServer
{
public:
    /// Called by many threads at once, for each connection by one. What it throws fails the test.
    using Handler = std::function<Reply(const Request&)>;

    /// @param certificate  serve https with it; nothing: http
    explicit LoopbackServer(Handler handler, const std::optional<TestCertificate>& certificate = std::nullopt);
    LoopbackServer(const LoopbackServer&) = delete;
    LoopbackServer& operator=(const LoopbackServer&) = delete;

    /// End all connections, stalled ones included. Waits for handlers that run.
    ~LoopbackServer();

    /// "http://127.0.0.1:PORT"
    std::string url() const;

    /// What has come until now, whole requests only, in order of arrival.
    std::vector<Request> requests() const;

    /// How many connections were accepted until now.
    std::size_t connections() const;

private:
    struct Connection
    {
        boost::asio::ip::tcp::socket socket; // closed under m_mutex, so that the end never meets another one's number
        std::thread thread = {};
    };

    void accept();
    void serve(Connection& connection);
    template <typename Stream>
    Reply::Then talk(Stream& stream); // returns how to end the connection
    template <typename Stream>
    std::optional<Request> read(Stream& stream, boost::beast::flat_buffer& buffer);
    template <typename Stream>
    bool write(Stream& stream, const Request& request, const Reply& reply);
    Reply replyTo(const Request& request);

    const Handler m_handler;
    std::optional<boost::asio::ssl::context> m_tls;
    boost::asio::io_context m_context; // its sockets are used synchronously; it never runs
    boost::asio::ip::tcp::acceptor m_acceptor;

    mutable std::mutex m_mutex;
    std::condition_variable m_ending;
    bool m_isEnding = false;             // guarded by m_mutex, as is all below
    std::list<Connection> m_connections; // those that have ended, too
    std::vector<Request> m_requests;

    std::thread m_thread; // accepts
};

} // namespace storage::clients::test
