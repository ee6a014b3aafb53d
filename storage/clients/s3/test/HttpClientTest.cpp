#include "LoopbackServer.hpp"

#include "http/HttpClient.hpp"

#include <gtest/gtest.h>

#include <atomic>
#include <cstdlib>

namespace storage::clients::s3
{

namespace
{

using namespace std::chrono_literals;
using test::LoopbackServer;
using test::Reply;
using test::Request;
using Kind = HttpFailure::Kind;

Reply echo(const Request& request)
{
    return {.body = request.body()};
}

class HttpClientTest : public testing::Test
{
protected:
    /// @return the kind of the failure; nothing when there was a response
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

    HttpResponse put(const std::string& url, const std::string& text)
    {
        TextBody body(text);
        return client.perform({.method = "PUT", .url = url, .body = &body});
    }

    HttpClient client{{.timeouts = {.stallWindow = 1s}}};
};

TEST_F(HttpClientTest, FailsAndLeavesNothingToTheNextRequest)
{
    const struct
    {
        const char* name;
        Reply reply;
        Kind expected = Kind::Broken;
        std::optional<std::chrono::milliseconds> deadline = {};
    } rows[] = {
        {"reset", Reply::reset()},
        {"garbage", Reply::raw("garbage\r\n\r\n", Reply::Then::Close)},
        {"cut head", Reply::raw("HTTP/1.1 200 OK\r\nContent-", Reply::Then::Close)},
        {"cut body", {200, {{"Content-Length", "9"}}, "short", Reply::Then::Close}},
        {"silent in the body", {200, {{"Content-Length", "9"}}, "short"}, Kind::Stalled},
        {"past its deadline", Reply::stall(), Kind::Stalled, 50ms},
    };
    for (const auto& row : rows)
    {
        SCOPED_TRACE(row.name);
        LoopbackServer server(
            [&](const Request& request) { return request.target() == "/bad" ? row.reply : echo(request); });
        EXPECT_EQ(put(server.url(), "one").body, "one"); // so that the fault meets a connection in use
        EXPECT_EQ(
            failureOf(client, {.method = "GET", .url = server.url() + "/bad", .deadline = row.deadline}), row.expected);
        EXPECT_EQ(put(server.url(), "two").body, "two");
    }
}

TEST_F(HttpClientTest, ReplacesAKeptConnectionAndSendsTheBodyAgain)
{
    const std::string large(300'000, 'b');
    for (const auto then : {Reply::Then::Close, Reply::Then::Reset})
    {
        for (const int last : {1, 2}) // it ends while it is unused, or while the next request is sent
        {
            std::atomic<int> number = 0;
            LoopbackServer server(
                [&](const Request& request) {
                    return ++number != last ? echo(request)
                           : last == 2      ? Reply::raw("", then)
                                            : Reply{200, {}, request.body(), then};
                });
            EXPECT_EQ(put(server.url(), "one").body, "one");
            EXPECT_TRUE(put(server.url(), large).body == large);
            EXPECT_EQ(server.connections(), 2U);
        }
    }
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
    const std::string silent = server.url() + "/silent";
    EXPECT_EQ(failureOf(interruptible, {.method = "GET", .url = silent}), Kind::Interrupted);
    EXPECT_EQ(failureOf(interruptible, {.method = "DELETE", .url = server.url()}), std::nullopt);
    interrupted = false;
    EXPECT_EQ(failureOf(interruptible, {.method = "GET", .url = silent, .deadline = 1200ms, .uninterruptible = true}),
        Kind::Stalled);
}

TEST_F(HttpClientTest, RefusesControlCharactersInFields)
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

TEST_F(HttpClientTest, ReportsServersThatCannotBeReached)
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
