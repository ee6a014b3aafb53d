#include "LoopbackServer.hpp"

#include "http/HttpClient.hpp"

#include <gmock/gmock.h>

#include <atomic>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <future>
#include <vector>

#include <unistd.h>

namespace storage::clients::s3
{

namespace
{

using namespace std::chrono_literals;
using test::LoopbackServer;
using test::Reply;
using test::Request;
using test::TestCertificate;
using Kind = HttpFailure::Kind;

Reply echo(const Request& request)
{
    return {.fields = {{"X-Target", std::string(request.target())}}, .body = request.body()};
}

class HttpClientTest : public testing::Test
{
protected:
    /// The kind of the failure; nothing when the request got an answer.
    std::optional<Kind> failureOf(HttpClient& asked, const HttpRequest& request)
    {
        try
        {
            asked.perform(request);
            return std::nullopt;
        }
        catch (const HttpFailure& failure)
        {
            return failure.kind();
        }
    }

    HttpResponse put(const std::string& url, const std::string& text, const HttpClient::Receiver& receiver = {})
    {
        TextBody body(text);
        return client.perform({.method = "PUT", .url = url, .body = &body}, receiver);
    }

    HttpClient client{{.timeouts = {.stallWindow = 1s}}};
};

struct Fault
{
    const char* name;
    Reply reply;
    Kind expected = Kind::Broken;
    std::optional<std::chrono::milliseconds> deadline = {};
};

class HttpFaultTest : public HttpClientTest, public testing::WithParamInterface<Fault>
{
};

TEST_P(HttpFaultTest, FailsAndLeavesNothingToTheNextRequest)
{
    LoopbackServer server(
        [](const Request& request) { return request.target() == "/bad" ? GetParam().reply : echo(request); });
    EXPECT_EQ(put(server.url(), "one").body, "one"); // so that the fault meets a connection in use
    const HttpRequest bad{.method = "GET", .url = server.url() + "/bad", .deadline = GetParam().deadline};
    EXPECT_EQ(failureOf(client, bad), GetParam().expected);
    EXPECT_EQ(put(server.url(), "two").body, "two");
}

const Reply::Then closing = Reply::Then::Close;
const std::string longBody(1000, 'x');

INSTANTIATE_TEST_SUITE_P(Faults, HttpFaultTest,
    testing::Values(Fault{"closed", Reply::raw("", closing)}, Fault{"reset", Reply::reset()},
        Fault{"garbage", Reply::raw("garbage\r\n\r\n", closing)},
        Fault{"cutHead", Reply::raw("HTTP/1.1 200 OK\r\nContent-", closing)},
        Fault{"cutBody", {200, {{"Content-Length", "9"}}, "short", closing}},
        Fault{"cutErrorBody", {404, {{"Content-Length", "9"}}, "short", closing}},
        Fault{"resetInBody", {200, {{"Content-Length", "9"}}, "short", Reply::Then::Reset}},
        Fault{"cutChunk", Reply::raw("HTTP/1.1 200 OK\r\nTransfer-Encoding: chunked\r\n\r\n9\r\nshort", closing)},
        Fault{"silent", Reply::stall(), Kind::Stalled},
        Fault{"silentInBody", {200, {{"Content-Length", "9"}}, "short"}, Kind::Stalled},
        Fault{"tooSlow", {.body = longBody, .pause = 40ms}, Kind::Stalled}, // 25 bytes per second; 64 are asked for
        Fault{"pastDeadline", {.body = longBody, .pause = 5ms}, Kind::Stalled, 300ms}),
    [](const auto& row) { return std::string(row.param.name); });

TEST_F(HttpClientTest, UsesOneConnectionForRequestsInTurn)
{
    LoopbackServer server(
        [](const Request& request) -> Reply
        {
            return request.target() == "/missing" ? Reply{404, {}, "none"}
                   : request.target() == "/moved" ? Reply{307, {{"Location", "/missing"}}}
                   : request.target() == "/empty" ? Reply{204}
                                                  : echo(request);
        });
    const auto ask = [&](const char* method, const char* path, const HttpClient::Receiver& receiver = {})
    { return client.perform({.method = method, .url = server.url() + path}, receiver); };
    int calls = 0;
    const HttpClient::Receiver count = [&](const HttpResponse& head, std::string_view bytes)
    {
        EXPECT_EQ(head.status, 200);
        calls += bytes.empty() ? 1 : 100;
    };
    EXPECT_EQ(ask("GET", "/missing", count).body, "none");
    EXPECT_EQ(ask("GET", "/moved", count).status, 307);
    EXPECT_EQ(ask("DELETE", "/empty", count).status, 204);
    EXPECT_EQ(calls, 0);
    EXPECT_EQ(*ask("GET", "/a/./../b//c%2F+?d=%20", count).headers.find("x-target"), "/a/./../b//c%2F+?d=%20");
    EXPECT_EQ(calls, 1);
    EXPECT_EQ(*ask("HEAD", "/missing").headers.find("Content-Length"), "4");
    EXPECT_EQ(ask("PUT", "/").status, 200); // without a body, as is the next
    EXPECT_EQ(ask("POST", "/").status, 200);
    EXPECT_EQ(server.connections(), 1U);
}

TEST_F(HttpClientTest, ReplacesAKeptConnectionAndSendsTheBodyAgain)
{
    const std::string large(300'000, 'b');
    for (const auto then : {Reply::Then::Close, Reply::Then::Reset})
    {
        for (const bool isEndedByNext : {false, true}) // otherwise while it is unused, or while the next one is sent
        {
            std::atomic<int> number = 0;
            LoopbackServer server(
                [&](const Request& request)
                {
                    const int current = ++number;
                    return current != (isEndedByNext ? 2 : 1) ? echo(request)
                           : isEndedByNext                    ? Reply::raw("", then)
                                                              : Reply{200, {}, request.body(), then};
                });
            EXPECT_EQ(put(server.url(), "one").body, "one");
            EXPECT_TRUE(put(server.url(), large).body == large);
            EXPECT_EQ(server.connections(), 2U);
        }
    }
}

TEST_F(HttpClientTest, MovesLargeBodiesPieceByPiece)
{
    LoopbackServer server(echo);
    std::string large;
    for (int i = 0; large.size() < 20'000'000; ++i)
    {
        large += std::to_string(i);
    }
    std::string received;
    std::size_t longest = 0;
    put(server.url(), large,
        [&](const HttpResponse&, std::string_view bytes)
        {
            received += bytes;
            longest = std::max(longest, bytes.size());
        });
    EXPECT_TRUE(received == large);
    EXPECT_LT(longest, large.size() / 10);
    EXPECT_THROW(
        put(server.url(), large, [](const HttpResponse&, std::string_view) { throw std::out_of_range("full"); }),
        std::out_of_range);
    EXPECT_EQ(put(server.url(), "two").body, "two");
}

TEST_F(HttpClientTest, ServesManyThreads)
{
    LoopbackServer server(echo);
    {
        std::vector<std::future<void>> threads;
        for (std::size_t size = 0; size < 8; ++size)
        {
            threads.push_back(std::async(std::launch::async,
                [&, text = std::string(size, 'x')]
                {
                    for (int i = 0; i < 20; ++i)
                    {
                        EXPECT_EQ(put(server.url(), text).body, text);
                    }
                }));
        }
    }
    EXPECT_EQ(server.requests().size(), 160U);
    EXPECT_LE(server.connections(), 8U);
}

TEST_F(HttpClientTest, AnInterruptEndsWhatBeganBeforeIt)
{
    std::atomic<bool> interrupted = false;
    LoopbackServer server(
        [&](const Request& request)
        {
            interrupted = true;
            return request.target() == "/silent" ? Reply::stall() : echo(request);
        });
    HttpClient interruptible({.interrupted = [&] { return interrupted.load(); }});
    EXPECT_EQ(failureOf(interruptible, {.method = "GET", .url = server.url() + "/silent"}), Kind::Interrupted);
    EXPECT_EQ(failureOf(interruptible, {.method = "DELETE", .url = server.url()}), std::nullopt);
    interrupted = false;
    EXPECT_EQ(failureOf(interruptible,
                  {.method = "GET", .url = server.url() + "/silent", .stallWindow = 2s, .uninterruptible = true}),
        Kind::Stalled);
}

TEST_F(HttpClientTest, ChecksCertificatesAgainstTheAuthoritiesGiven)
{
    const TestCertificate right("IP:127.0.0.1"), wrong("DNS:example.org");
    std::string path = std::filesystem::temp_directory_path() / "s3_test_XXXXXX";
    ::close(::mkstemp(path.data()));
    std::ofstream(path) << right.certificate << wrong.certificate;
    LoopbackServer server(echo, right), impostor(echo, wrong);
    HttpClient trusting({.authorities = path}), broken({.authorities = path + "/none"});
    EXPECT_EQ(failureOf(trusting, {.method = "GET", .url = server.url()}), std::nullopt);
    EXPECT_EQ(failureOf(client, {.method = "GET", .url = server.url()}), Kind::Certificate);
    EXPECT_EQ(failureOf(trusting, {.method = "GET", .url = impostor.url()}), Kind::Certificate);
    EXPECT_EQ(failureOf(broken, {.method = "GET", .url = server.url()}), Kind::Invalid);
    std::filesystem::remove(path);
}

TEST_F(HttpClientTest, LetsNoFieldBecomeTwo)
{
    LoopbackServer server(echo);
    for (const char control : {'\r', '\n', '\0', '\x7F'})
    {
        HttpRequest request{.method = "GET", .url = server.url()};
        request.headers.add("If-Match", std::string("\"tag") + control + "X-Other: 1\"");
        EXPECT_EQ(failureOf(client, request), Kind::Invalid);
    }
    EXPECT_EQ(server.requests().size(), 0U);
}

TEST_F(HttpClientTest, TellsWhoCannotBeReached)
{
    const std::string gone = LoopbackServer(echo).url();
    EXPECT_EQ(failureOf(client, {.method = "GET", .url = gone}), Kind::Unreachable);
    EXPECT_EQ(failureOf(client, {.method = "GET", .url = "file:///"}), Kind::Invalid);
    ::setenv("http_proxy", gone.c_str(), 1); // while no other thread runs
    {
        LoopbackServer server(echo);
        EXPECT_EQ(failureOf(client, {.method = "GET", .url = server.url()}), Kind::Unreachable);
        EXPECT_EQ(failureOf(client, {.method = "GET", .url = server.url(), .bypassProxy = true}), std::nullopt);
    }
    ::unsetenv("http_proxy");
}

} // namespace

} // namespace storage::clients::s3
