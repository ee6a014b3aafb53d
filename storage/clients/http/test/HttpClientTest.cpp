#include "LoopbackServer.hpp"

#include <storage/clients/http/Hashing.hpp>
#include <storage/clients/http/HttpClient.hpp>
#include <storage/clients/http/Times.hpp>

#include <gmock/gmock.h>

#include <atomic>
#include <chrono>
#include <cstdlib>
#include <filesystem>
#include <iostream>
#include <iterator>
#include <optional>
#include <sstream>
#include <string>
#include <tuple>

namespace storage::clients::test
{

namespace
{

using namespace std::chrono_literals;

TEST(HashingTest, WorksWhileTheProcessExits)
{
    GTEST_FLAG_SET(death_test_style, "threadsafe"); // a process in which nothing is initialised yet
    const auto end = []
    {
        std::atexit([] { std::cerr << sha256Hex("") << '.'; }); // runs after what is registered later
        const HttpClient client({});
        EXPECT_EQ(md5("").size(), 16U);
        std::exit(0);
    };
    EXPECT_EXIT(end(), testing::ExitedWithCode(0), "e3b0c44298fc1c14");
}

using Kind = HttpFailure::Kind;

Reply echo(const Request& request)
{
    return {.body = request.body()};
}

struct Pipe : std::stringbuf
{
    using std::stringbuf::stringbuf;
    pos_type seekoff(off_type, std::ios::seekdir, std::ios::openmode) override { return -1; }
};

class HttpClientTest : public testing::Test
{
protected:
    /// @return the kind of the failure; nothing when there was a response
    std::optional<Kind> failureKind(HttpClient& asked, const HttpRequest& request)
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
        Pipe pipe(text);
        std::istream content(&pipe);
        StreamBody body("key", content, text.size());
        return client.perform({.method = "PUT", .url = url, .body = &body});
    }

    HttpClient client{{}};
};

TEST_F(HttpClientTest, AFailureDoesNotAffectTheNextRequest)
{
    constexpr auto keep = Reply::Then::Keep;
    constexpr auto close = Reply::Then::Close;
    const std::string chunked = "HTTP/1.1 200 OK\r\nTransfer-Encoding: chunked\r\n\r\n";
    const struct
    {
        const char* name;
        Reply reply;
        std::optional<Kind> expected = Kind::Broken;
        std::optional<std::chrono::milliseconds> deadline = {};
        std::optional<std::chrono::milliseconds> stallWindow = {};
    } rows[] = {
        {"reset", Reply::reset()},
        {"garbage", Reply::raw("garbage\r\n\r\n", keep), Kind::Unusable},
        {"no number", {200, {{"Content-Length", "-5"}}}, Kind::Unusable},
        {"interim response only", Reply::raw("HTTP/1.1 100 Continue\r\n\r\n", close)},
        {"old response", Reply::raw("HTTP/1.0 200 OK\r\n\r\n<html>", close), std::nullopt},
        {"no length", Reply::raw("HTTP/1.1 200 OK\r\n\r\n<html>", keep), Kind::Stalled, {}, 50ms},
        {"no last chunk", Reply::raw(chunked + "1\r\nx\r\n", keep), Kind::Stalled, {}, 50ms},
        {"cut head", Reply::raw("HTTP/1.1 200 OK\r\nContent-", close)},
        {"cut body", {200, {{"Content-Length", "9"}}, "short", close}},
        {"silent in the body", {200, {{"Content-Length", "9"}}, "short"}, Kind::Stalled, {}, 50ms},
        {"past its deadline", Reply::stall(), Kind::Stalled, 50ms},
    };
    for (const auto& row : rows)
    {
        SCOPED_TRACE(row.name);
        LoopbackServer server(
            [&](const Request& request) { return request.target() == "/bad" ? row.reply : echo(request); });
        EXPECT_EQ(put(server.url(), "one").body, "one"); // so that the fault meets a connection in use
        const HttpRequest bad{
            .method = "GET", .url = server.url() + "/bad", .stallWindow = row.stallWindow, .deadline = row.deadline};
        EXPECT_EQ(failureKind(client, bad), row.expected);
        EXPECT_EQ(put(server.url(), "two").body, "two");
    }
}

TEST_F(HttpClientTest, AnUploadLastsAsLongAsTheServerTakesBytes)
{
    const std::string bytes(2'000'000, 'b'); // the system may buffer all of them at once
    SpanBody body({bytes, "", "end"});
    for (const auto& [pace, stallWindow, expected] :
        {std::tuple(30ms, 500ms, std::optional<Kind>()), std::tuple(9000ms, 50ms, std::optional(Kind::Stalled))})
    {
        LoopbackServer server([](const Request&) { return Reply(); }, "", pace);
        const HttpRequest request{.method = "PUT", .url = server.url(), .body = &body, .stallWindow = stallWindow};
        EXPECT_EQ(failureKind(client, request), expected);
        for (const Request& whole : server.requests())
        {
            EXPECT_EQ(sha256Hex(whole.body()), sha256Hex(body));
        }
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

TEST_F(HttpClientTest, CancelsOnlyRequestsThatBeganBeforeAnInterrupt)
{
    std::atomic<bool> interrupted = false;
    LoopbackServer server(
        [&](const Request& request)
        {
            interrupted = true;
            return request.target() == "/silent" ? Reply::stall() : echo(request);
        });
    HttpClient interruptible({.timeouts = {.cleanUp = 400ms}, .interrupted = [&] { return interrupted.load(); }});
    const std::string silent = server.url() + "/silent";
    const auto countFiles = [] { return std::distance(std::filesystem::directory_iterator("/proc/self/fd"), {}); };
    const auto filesBefore = countFiles();
    EXPECT_EQ(failureKind(interruptible, {.method = "GET", .url = silent}), Kind::Interrupted);
    EXPECT_EQ(countFiles(), filesBefore + 1) << "only the server still has its end of the connection";
    EXPECT_EQ(failureKind(interruptible, {.method = "DELETE", .url = server.url()}), std::nullopt);
    EXPECT_EQ(failureKind(interruptible, {.method = "DELETE", .url = silent}), Kind::Stalled);
    for (const char* method : {"GET", "POST"})
    {
        EXPECT_EQ(failureKind(interruptible, {.method = method, .url = server.url()}), Kind::Interrupted) << method;
    }
    for (const auto& [deadline, kind] : {std::pair(100ms, Kind::Stalled), std::pair(9000ms, Kind::Interrupted)})
    {
        interrupted = false;
        EXPECT_EQ(failureKind(
                      interruptible, {.method = "POST", .url = silent, .deadline = deadline, .uninterruptible = true}),
            kind);
    }
}

TEST_F(HttpClientTest, RefusesControlCharactersInFields)
{
    LoopbackServer server(echo);
    for (const char control : {'\r', '\n', '\0', '\x7F'})
    {
        HttpRequest request{.method = "GET", .url = server.url()};
        request.headers.add("If-Match", std::string("\"tag") + control + "X-Other: 1\"");
        EXPECT_EQ(failureKind(client, request), Kind::Invalid);
    }
    EXPECT_EQ(server.requests().size(), 0U);
}

TEST_F(HttpClientTest, ReportsServersThatCannotBeReached)
{
    const std::string gone = LoopbackServer(echo).url();
    EXPECT_EQ(failureKind(client, {.method = "GET", .url = gone}), Kind::Unreachable);
    EXPECT_EQ(failureKind(client, {.method = "GET", .url = "file:///"}), Kind::Invalid);
    ::setenv("http_proxy", gone.c_str(), 1); // while no other thread runs
    {
        LoopbackServer server(echo);
        EXPECT_EQ(failureKind(client, {.method = "GET", .url = server.url()}), Kind::Unreachable);
        EXPECT_EQ(failureKind(client, {.method = "GET", .url = server.url(), .bypassProxy = true}), std::nullopt);
    }
    ::unsetenv("http_proxy");
}

TEST(TimesTest, AreReadOnlyInTheirForm)
{
    EXPECT_EQ(readIsoTime("2026-11-21T10:50:54.5Z") - readIsoTime("2026-11-20T00:00:00"),
        boost::posix_time::hours(34) + boost::posix_time::millisec(50 * 60'000 + 54'500));
    for (const char* text : {"", "Z", "2026", "2026-", "--T::", "2026-11-21", "2026-11-21T", "2026-11-21T10:50Z",
             "2026-13-21T10:50:54Z", "2026-11-21T10:50:54.Z", "2026-11-21T10:50:54.0123456789Z", "T10:50:54Z",
             "2026-11-21T-1:50:54Z", "2026-11-21T10:50:54 Z"})
    {
        EXPECT_TRUE(readIsoTime(text).is_not_a_date_time()) << text;
    }
}

} // namespace

} // namespace storage::clients::test
