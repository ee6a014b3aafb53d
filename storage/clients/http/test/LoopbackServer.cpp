#include "LoopbackServer.hpp"

#include <gtest/gtest.h>

#include <boost/asio/ssl.hpp>
#include <boost/asio/write.hpp>
#include <boost/beast/http.hpp>

#include <cstdint>
#include <cstdlib>
#include <limits>
#include <sstream>

#include <sys/socket.h>

namespace storage::clients::test
{

namespace
{

namespace asio = boost::asio;
namespace http = boost::beast::http;
using boost::system::error_code;

/// Have a server present a new certificate for 127.0.0.1, signed by itself. Write that and its key to a file.
void useNewCertificate(asio::ssl::context& server, const std::string& path)
{
    const std::string command = "openssl req -x509 -newkey ec -pkeyopt ec_paramgen_curve:P-256 -nodes -subj /CN=test "
                                "-addext subjectAltName=IP:127.0.0.1 -keyout '" +
                                path + "' -out '" + path + "'";
    EXPECT_EQ(std::system(command.c_str()), 0) << command;
    server.use_certificate_file(path, asio::ssl::context::pem);
    server.use_private_key_file(path, asio::ssl::context::pem);
}

std::string headOf(const Reply& reply)
{
    http::response<http::empty_body> head;
    head.result(static_cast<unsigned>(reply.status));
    head.content_length(reply.body.size());
    for (const auto& [name, value] : reply.fields)
    {
        name == "Content-Length" ? head.set(name, value) : head.insert(name, value);
    }
    std::ostringstream text;
    text << head.base();
    return text.str();
}

} // namespace

LoopbackServer::LoopbackServer(Handler handler, const std::string& certificateFile, std::chrono::milliseconds pace)
    : m_handler(std::move(handler))
    , m_pace(pace)
    , m_acceptor(m_context, {asio::ip::address_v4::loopback(), 0})
{
    if (!certificateFile.empty())
    {
        useNewCertificate(m_tls.emplace(asio::ssl::context::tls_server), certificateFile);
    }
    if (pace.count() > 0)
    {
        m_acceptor.set_option(asio::socket_base::receive_buffer_size(64 * 1024)); // of the connections, too
    }
    m_thread = std::jthread([this] { accept(); });
}

LoopbackServer::~LoopbackServer()
{
    {
        const std::lock_guard lock(m_mutex);
        m_isEnding = true;
        ::shutdown(m_acceptor.native_handle(), SHUT_RDWR); // wakes accept()
        for (Connection& connection : m_connections)
        {
            ::shutdown(connection.socket.native_handle(), SHUT_RDWR); // fails for those that have ended
        }
    }
    m_ending.notify_all();
}

std::string LoopbackServer::url() const
{
    return (m_tls ? "https://127.0.0.1:" : "http://127.0.0.1:") + std::to_string(m_acceptor.local_endpoint().port());
}

std::vector<Request> LoopbackServer::requests() const
{
    const std::lock_guard lock(m_mutex);
    return m_requests;
}

std::size_t LoopbackServer::connections() const
{
    const std::lock_guard lock(m_mutex);
    return m_connections.size();
}

void LoopbackServer::accept()
{
    for (;;)
    {
        error_code error;
        Tcp::socket socket = m_acceptor.accept(error);
        const std::lock_guard lock(m_mutex);
        if (m_isEnding || error)
        {
            EXPECT_TRUE(m_isEnding) << "accepting a connection: " << error.message();
            return;
        }
        Connection& connection = m_connections.emplace_back(Connection{std::move(socket)});
        connection.thread = std::jthread([this, &connection] { serve(connection); });
    }
}

void LoopbackServer::serve(Connection& connection)
{
    error_code error;
    connection.socket.set_option(Tcp::no_delay(true), error);
    auto then = Reply::Then::Close;
    if (m_tls)
    {
        asio::ssl::stream<Tcp::socket&> stream(connection.socket, *m_tls);
        stream.handshake(asio::ssl::stream_base::server, error);
        then = error ? then : talk(stream);
    }
    else
    {
        then = talk(connection.socket);
    }
    const std::lock_guard lock(m_mutex);
    if (then == Reply::Then::Reset)
    {
        connection.socket.set_option(asio::socket_base::linger(true, 0), error);
    }
    connection.socket.close(error); // the client may have closed its end at any time
}

template <typename Stream>
Reply::Then LoopbackServer::talk(Stream& stream)
{
    boost::beast::flat_buffer buffer;
    buffer.reserve(64 * 1024); // read at once
    for (;;)
    {
        error_code error;
        http::request_parser<http::string_body> parser;
        parser.body_limit(std::numeric_limits<std::uint64_t>::max());
        while (!parser.is_done() && !error)
        {
            sleep(m_pace);
            http::read_some(stream, buffer, parser, error);
        }
        if (error)
        {
            return Reply::Then::Close;
        }
        const Request request = parser.release();
        const Reply reply = replyTo(request);
        sleep(reply.delay);
        const std::string head = reply.isRaw ? std::string() : headOf(reply);
        asio::write(stream, asio::buffer(request.method() == http::verb::head ? head : head + reply.body), error);
        if (error || reply.then != Reply::Then::Keep)
        {
            return error ? Reply::Then::Close : reply.then;
        }
    }
}

void LoopbackServer::sleep(std::chrono::milliseconds time)
{
    std::unique_lock lock(m_mutex);
    m_ending.wait_for(lock, time, [this] { return m_isEnding; });
}

Reply LoopbackServer::replyTo(const Request& request)
{
    {
        const std::lock_guard lock(m_mutex);
        m_requests.push_back(request);
    }
    return m_handler(request);
}

} // namespace storage::clients::test
