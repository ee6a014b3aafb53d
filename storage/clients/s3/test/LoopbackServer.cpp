#include "LoopbackServer.hpp"

#include <gtest/gtest.h>

#include <boost/asio/ssl.hpp>
#include <boost/asio/write.hpp>
#include <boost/beast/http.hpp>
#include <openssl/ec.h>
#include <openssl/pem.h>
#include <openssl/x509v3.h>

#include <cstdint>
#include <limits>
#include <memory>
#include <sstream>

#include <sys/socket.h>

namespace storage::clients::test
{

namespace
{

namespace asio = boost::asio;
namespace http = boost::beast::http;
using boost::system::error_code;

/// Have a server present a new certificate for 127.0.0.1, signed by itself, and write that to a file.
void useNewCertificate(SSL_CTX* server, const std::string& path)
{
    const std::unique_ptr<EVP_PKEY, void (*)(EVP_PKEY*)> pair(EVP_EC_gen("P-256"), EVP_PKEY_free);
    const std::unique_ptr<X509, void (*)(X509*)> certificate(X509_new(), X509_free);
    const std::unique_ptr<X509_EXTENSION, void (*)(X509_EXTENSION*)> holder(
        X509V3_EXT_conf_nid(nullptr, nullptr, NID_subject_alt_name, "IP:127.0.0.1"), X509_EXTENSION_free);
    const std::unique_ptr<FILE, int (*)(FILE*)> file(std::fopen(path.c_str(), "w"), std::fclose);
    X509_NAME* const name = X509_get_subject_name(certificate.get());
    X509_NAME_add_entry_by_NID(
        name, NID_commonName, MBSTRING_ASC, reinterpret_cast<const unsigned char*>("test"), -1, -1, 0);
    X509_set_version(certificate.get(), X509_VERSION_3);
    X509_set_issuer_name(certificate.get(), name);
    X509_gmtime_adj(X509_getm_notBefore(certificate.get()), -3600);
    X509_gmtime_adj(X509_getm_notAfter(certificate.get()), 3600);
    X509_set_pubkey(certificate.get(), pair.get());
    X509_add_ext(certificate.get(), holder.get(), -1);
    X509_sign(certificate.get(), pair.get(), EVP_sha256());
    EXPECT_EQ(PEM_write_X509(file.get(), certificate.get()), 1);
    EXPECT_EQ(SSL_CTX_use_certificate(server, certificate.get()), 1);
    EXPECT_EQ(SSL_CTX_use_PrivateKey(server, pair.get()), 1);
}

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

LoopbackServer::LoopbackServer(Handler handler, const std::string& certificateFile)
    : m_handler(std::move(handler))
    , m_acceptor(m_context, {asio::ip::address_v4::loopback(), 0})
{
    if (!certificateFile.empty())
    {
        useNewCertificate(m_tls.emplace(asio::ssl::context::tls_server).native_handle(), certificateFile);
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
    for (;;)
    {
        error_code error;
        http::request_parser<http::string_body> parser;
        parser.body_limit(std::numeric_limits<std::uint64_t>::max());
        http::read(stream, buffer, parser, error);
        if (error)
        {
            return Reply::Then::Close;
        }
        const Request request = parser.release();
        const Reply reply = replyTo(request);
        {
            std::unique_lock lock(m_mutex);
            m_ending.wait_for(lock, reply.delay, [this] { return m_isEnding; });
        }
        const std::string head = reply.isRaw ? std::string() : headOf(reply);
        asio::write(stream, asio::buffer(request.method() == http::verb::head ? head : head + reply.body), error);
        if (error || reply.then != Reply::Then::Keep)
        {
            return error ? Reply::Then::Close : reply.then;
        }
    }
}

Reply LoopbackServer::replyTo(const Request& request)
{
    {
        const std::lock_guard lock(m_mutex);
        m_requests.push_back(request);
    }
    try
    {
        return m_handler(request);
    }
    catch (const std::exception& exception)
    {
        ADD_FAILURE() << "responding to " << request.method_string() << ' ' << request.target() << ": "
                      << exception.what();
        return Reply::reset();
    }
}

} // namespace storage::clients::test
