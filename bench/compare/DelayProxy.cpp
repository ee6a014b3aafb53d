// Adds a delay to each response of a local store, so that the store looks distant, and counts requests and bytes.
//
// Usage: delay_proxy STORE_PORT
//
// Prints the port on 127.0.0.1 that it listens on, then reads commands from standard input, one per line:
//   delay MILLISECONDS   delay the first byte of each response by this time; prints "ok"
//   take                 print "REQUESTS SENT RECEIVED" since the last "take": bytes as seen by the client, with
//   headers
// It exits at the end of its standard input, so that it never outlives the process that started it.

#include <boost/asio/io_context.hpp>
#include <boost/asio/ip/tcp.hpp>

#include <array>
#include <atomic>
#include <cerrno>
#include <chrono>
#include <csignal>
#include <cstdint>
#include <cstdlib>
#include <exception>
#include <fcntl.h>
#include <iostream>
#include <memory>
#include <string>
#include <string_view>
#include <sys/socket.h>
#include <system_error>
#include <thread>
#include <unistd.h>

namespace
{

using boost::asio::ip::tcp;

std::atomic<std::uint64_t> requests = 0, sent = 0, received = 0; // since the last "take"
std::atomic<std::int64_t> delayMilliseconds = 0;

/// Moves bytes from socket to socket inside the kernel: copying them here would take CPU time from client and store,
/// which share this machine's cores.
class Channel
{
public:
    Channel()
    {
        if (::pipe2(m_ends.data(), O_CLOEXEC) != 0)
        {
            throw std::system_error(errno, std::generic_category(), "pipe");
        }
        // A larger pipe than the default of 64 KiB, if the system allows it.
        ::fcntl(m_ends[1], F_SETPIPE_SZ, static_cast<int>(capacity));
    }

    ~Channel()
    {
        ::close(m_ends[0]);
        ::close(m_ends[1]);
    }

    Channel(const Channel&) = delete;
    Channel& operator=(const Channel&) = delete;

    /// Wait for bytes and take them.
    /// @return how many; 0 when the other side has closed the connection or it failed
    std::size_t take(tcp::socket& from) { return move(from.native_handle(), m_ends[1], capacity); }

    /// Send the bytes that were taken.
    /// @return whether the other side accepted them
    bool pass(tcp::socket& to, std::size_t size)
    {
        while (size > 0)
        {
            const std::size_t passed = move(m_ends[0], to.native_handle(), size);
            if (passed == 0)
            {
                return false;
            }
            size -= passed;
        }
        return true;
    }

private:
    static constexpr std::size_t capacity = std::size_t{1024} * 1024; // the maximum without privileges

    static std::size_t move(int from, int to, std::size_t size)
    {
        const ssize_t moved = ::splice(from, nullptr, to, nullptr, size, SPLICE_F_MOVE);
        return moved > 0 ? static_cast<std::size_t>(moved) : 0;
    }

    std::array<int, 2> m_ends = {};
};

/// One connection of a client and its connection to the store; one thread for each direction.
///
/// Counts a request when bytes arrive after a response has started: these clients do not pipeline requests.
class Connection
{
public:
    Connection(tcp::socket client, tcp::socket store)
        : m_client(std::move(client))
        , m_store(std::move(store))
    {
        m_client.set_option(tcp::no_delay(true));
        m_store.set_option(tcp::no_delay(true));
    }

    void forwardRequests()
    {
        Channel channel;
        while (const std::size_t size = channel.take(m_client))
        {
            if (!m_responseDue.exchange(true))
            {
                ++requests;
            }
            sent += size;
            if (!channel.pass(m_store, size))
            {
                break;
            }
        }
        end();
    }

    void forwardResponses()
    {
        Channel channel;
        while (waitForResponse())
        {
            const std::size_t size = channel.take(m_store);
            received += size;
            if (size == 0 || !channel.pass(m_client, size))
            {
                break;
            }
        }
        end();
    }

private:
    // Wait for bytes from the store, and delay them if they start a response. "100 Continue" is not a response and is
    // not delayed.
    bool waitForResponse()
    {
        constexpr std::string_view interim = "HTTP/1.1 1";
        std::array<char, interim.size()> start = {};
        // Wait first: only when bytes arrive it is certain whether a request was sent before.
        if (::recv(m_store.native_handle(), start.data(), 1, MSG_PEEK) <= 0)
        {
            return false;
        }
        if (m_responseDue)
        {
            const ssize_t size = ::recv(m_store.native_handle(), start.data(), start.size(), MSG_PEEK | MSG_WAITALL);
            if (size <= 0)
            {
                return false;
            }
            if (std::string_view(start.data(), static_cast<std::size_t>(size)) != interim)
            {
                std::this_thread::sleep_for(std::chrono::milliseconds(delayMilliseconds));
                m_responseDue = false;
            }
        }
        return true;
    }

    // The other direction notices and ends too; bytes already sent still arrive.
    void end()
    {
        boost::system::error_code ignored; // it may be closed already
        m_client.shutdown(tcp::socket::shutdown_both, ignored);
        m_store.shutdown(tcp::socket::shutdown_both, ignored);
    }

    tcp::socket m_client;
    tcp::socket m_store;
    std::atomic<bool> m_responseDue = false; // set before a request is sent on, cleared before its response is
};

void serve(tcp::acceptor& acceptor, const tcp::endpoint& store)
{
    for (;;)
    {
        try
        {
            tcp::socket client = acceptor.accept();
            tcp::socket upstream(acceptor.get_executor());
            upstream.connect(store);
            const auto connection = std::make_shared<Connection>(std::move(client), std::move(upstream));
            std::thread([connection] { connection->forwardRequests(); }).detach();
            std::thread([connection] { connection->forwardResponses(); }).detach();
        }
        catch (const std::exception& failure)
        {
            std::cerr << "delay_proxy: " << failure.what() << std::endl;
        }
    }
}

} // namespace

int main(int argc, char** argv)
try
{
    if (argc != 2)
    {
        std::cerr << "usage: delay_proxy STORE_PORT" << std::endl;
        return 2;
    }
    std::signal(SIGPIPE, SIG_IGN); // a client may close its connection in the middle of a response
    const auto loopback = boost::asio::ip::address_v4::loopback();
    const tcp::endpoint store(loopback, static_cast<std::uint16_t>(std::stoul(argv[1])));
    boost::asio::io_context context;
    tcp::acceptor acceptor(context, tcp::endpoint(loopback, 0));
    std::cout << acceptor.local_endpoint().port() << std::endl;
    std::thread([&] { serve(acceptor, store); }).detach();

    for (std::string command; std::cin >> command;)
    {
        if (std::int64_t milliseconds = 0; command == "delay" && std::cin >> milliseconds)
        {
            delayMilliseconds = milliseconds;
            std::cout << "ok" << std::endl;
        }
        else
        {
            std::cout << requests.exchange(0) << ' ' << sent.exchange(0) << ' ' << received.exchange(0) << std::endl;
        }
    }
    std::_Exit(0); // without waiting for open connections
}
catch (const std::exception& failure)
{
    std::cerr << "delay_proxy: " << failure.what() << std::endl;
    return 1;
}
