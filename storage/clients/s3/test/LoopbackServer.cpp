#include "LoopbackServer.hpp"

#include <gtest/gtest.h>

#include <boost/algorithm/string/predicate.hpp>
#include <boost/asio/ssl.hpp>
#include <boost/asio/write.hpp>
#include <boost/beast/http.hpp>

#include <cstdint>
#include <limits>
#include <sstream>
#include <string_view>

#include <sys/socket.h>

namespace storage::clients::test
{

namespace
{

namespace asio = boost::asio;
namespace http = boost::beast::http;
using boost::system::error_code;
using Tcp = asio::ip::tcp;

std::string headOf(const Reply& reply)
{
    http::response<http::empty_body> head;
    head.result(static_cast<unsigned>(reply.status));
    if (reply.status != 204)
    {
        head.content_length(reply.body.size());
    }
    for (const auto& [name, value] : reply.fields)
    {
        head.set(name, value);
    }
    std::ostringstream text;
    text << head.base();
    return text.str();
}

} // namespace

LoopbackServer::LoopbackServer(Handler handler, const std::optional<TestCertificate>& certificate)
    : m_handler(std::move(handler))
    , m_acceptor(m_context, {asio::ip::address_v4::loopback(), 0})
{
    if (certificate)
    {
        m_tls.emplace(asio::ssl::context::tls_server);
        m_tls->use_certificate(asio::buffer(certificate->certificate), asio::ssl::context::pem);
        m_tls->use_private_key(asio::buffer(certificate->key), asio::ssl::context::pem);
    }
    m_thread = std::thread([this] { accept(); });
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
    m_thread.join();
    for (Connection& connection : m_connections)
    {
        connection.thread.join();
    }
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
        connection.thread = std::thread([this, &connection] { serve(connection); });
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
    connection.socket.close(error); // the client may have gone, whenever it liked
}

template <typename Stream>
Reply::Then LoopbackServer::talk(Stream& stream)
{
    boost::beast::flat_buffer buffer;
    while (const auto request = read(stream, buffer))
    {
        const Reply reply = replyTo(*request);
        if (!write(stream, *request, reply))
        {
            return Reply::Then::Close;
        }
        if (reply.then == Reply::Then::Stall)
        {
            std::unique_lock lock(m_mutex);
            m_ending.wait(lock, [this] { return m_isEnding; });
        }
        if (reply.then != Reply::Then::Keep)
        {
            return reply.then;
        }
    }
    return Reply::Then::Close;
}

template <typename Stream>
std::optional<Request> LoopbackServer::read(Stream& stream, boost::beast::flat_buffer& buffer)
{
    error_code error;
    http::request_parser<http::string_body> parser;
    parser.body_limit(std::numeric_limits<std::uint64_t>::max());
    http::read_header(stream, buffer, parser, error);
    if (!error && boost::algorithm::iequals(parser.get()[http::field::expect], "100-continue"))
    {
        asio::write(stream, asio::buffer(std::string_view("HTTP/1.1 100 Continue\r\n\r\n")), error);
    }
    if (!error)
    {
        http::read(stream, buffer, parser, error);
    }
    if (error)
    {
        return std::nullopt;
    }
    const std::lock_guard lock(m_mutex);
    return m_requests.emplace_back(parser.release());
}

template <typename Stream>
bool LoopbackServer::write(Stream& stream, const Request& request, const Reply& reply)
{
    error_code error;
    if (!reply.isRaw)
    {
        asio::write(stream, asio::buffer(headOf(reply)), error);
    }
    const std::string_view body = request.method() == http::verb::head ? std::string_view() : reply.body;
    const std::size_t step = reply.pause.count() > 0 ? 1 : body.size();
    for (std::size_t at = 0; at < body.size() && !error; at += step)
    {
        asio::write(stream, asio::buffer(body.substr(at, step)), error);
        std::unique_lock lock(m_mutex);
        m_ending.wait_for(lock, reply.pause, [this] { return m_isEnding; });
    }
    return !error;
}

Reply LoopbackServer::replyTo(const Request& request)
{
    try
    {
        return m_handler(request);
    }
    catch (const std::exception& exception)
    {
        ADD_FAILURE() << "answering " << request.method_string() << ' ' << request.target() << ": " << exception.what();
        return Reply::reset();
    }
}

} // namespace storage::clients::test
