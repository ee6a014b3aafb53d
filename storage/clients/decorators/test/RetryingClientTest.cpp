#include <storage/clients/common/TransientException.hpp>
#include <storage/clients/decorators/CountingClient.hpp>
#include <storage/clients/decorators/FaultyClient.hpp>
#include <storage/clients/decorators/RetryingClient.hpp>
#include <storage/clients/memory/MemoryClient.hpp>
#include <storage/cloudprovider/CloudExceptions.hpp>
#include <storage/cloudprovider/Logger.hpp>

#include <foundation/log/Severity.hpp>
#include <foundation/log/basic_diagnostic_logger.hpp>

#include <boost/iostreams/device/array.hpp>
#include <boost/iostreams/stream_buffer.hpp>
#include <gmock/gmock.h>

#include <set>
#include <sstream>

namespace storage::clients
{

namespace
{

using namespace cloudprovider;
using namespace std::chrono_literals;
using namespace testing;
using std::chrono::milliseconds;

class RetryingClientTest : public Test
{
protected:
    /// Waits take no time but the clock's, and are as long as they may be.
    RetryClock clock()
    {
        const auto sleep = [this](RetryClock::Duration nap)
        {
            EXPECT_LE(nap, 100ms) << "an interrupt is noticed after that time";
            time += nap;
        };
        return {[this] { return time; }, sleep, [](RetryClock::Duration most) { return most; }};
    }

    std::chrono::steady_clock::time_point time;
    const std::shared_ptr<MemoryClient> store = std::make_shared<MemoryClient>();
    const std::shared_ptr<FaultyClient> faults = std::make_shared<FaultyClient>(store);
    const std::shared_ptr<CountingClient> counted = std::make_shared<CountingClient>(faults);
};

auto hasDetail(const std::string& text)
{
    return Property(&CloudException::detail, Optional(HasSubstr(text)));
}

TEST_F(RetryingClientTest, WaitsThenGivesUp)
{
    const struct
    {
        const char* name;
        RetryPolicy policy;
        milliseconds tryTakes;
        std::optional<milliseconds> retryAfter;
        std::vector<int> tries; // ms after the call began
        std::string summary;
        std::size_t furthering = 0; // tries, the first ones, that get further
    } rows[] = {
        {"doubles", {100ms, 1s, 3500ms}, 0ms, {}, {0, 100, 300, 700, 1500, 2500, 3500}, "attempt 7, 3.5"},
        {"begins at the maximum", {5s, 1s, 2s}, 0ms, {}, {0, 1000, 2000}, "attempt 3, 2.0"},
        {"counts the time of tries", {100ms, 20s, 2300ms}, 1s, {}, {0, 1100, 2300}, "attempt 3, 3.3"},
        {"obeys the store", {100ms, 20s, 12s}, 0ms, 5s, {0, 5100, 10300}, "attempt 3, 10.3"},
        {"is asked for too much", {1ms, 1ms, 12s}, 0ms, 12s, {0}, "attempt 1, 0.0"},
        {"is asked for more than can be counted", {1ms, 1ms, 12s}, 0ms, milliseconds::max(), {0}, "attempt 1, 0.0"},
        {"is asked for less than nothing", {100ms, 20s, 300ms}, 0ms, -5s, {0, 100, 300}, "attempt 3, 0.3"},
        {"begins anew after getting further", {100ms, 20s, 300ms}, 0ms, {}, {0, 100, 200, 300, 500}, "attempt 5, 0.5",
            3},
        {"got further for long", {100ms, 20s, 300ms}, 400ms, {}, {0, 500, 1000}, "attempt 3, 1.4", 2},
    };
    for (const auto& row : rows)
    {
        SCOPED_TRACE(row.name);
        const auto begin = time;
        std::vector<int> tries;
        faults->setHook(
            [&](Operation, const std::string&)
            {
                tries.push_back(static_cast<int>((time - begin) / 1ms));
                time += row.tryTakes;
                throw TransientException("Busy", "store busy", row.retryAfter, tries.size() <= row.furthering);
            });
        EXPECT_THAT([&] { RetryingClient(counted, row.policy, clock()).deleteObject("a"); },
            Throws<TransientException>(
                AllOf(hasDetail("store busy; gave up after " + row.summary + " s after the first: another wait"),
                    Property(&TransientException::retryAfter, row.retryAfter))));
        EXPECT_EQ(tries, row.tries);
    }
}

TEST_F(RetryingClientTest, OtherFailuresPassAtOnce)
{
    faults->inject({.call = 1, .failure = std::make_exception_ptr(PermissionDeniedException("Denied"))});
    EXPECT_THROW(RetryingClient(counted, {}, clock()).getObjectInfo("a"), PermissionDeniedException);
    EXPECT_EQ(counted->callSnapshot().totalCalls(), 1U);
}

TEST_F(RetryingClientTest, AnInterruptEndsTheWait)
{
    bool interrupted = false;
    RetryClock interrupting = clock();
    interrupting.sleep = [&](RetryClock::Duration nap)
    {
        time += nap;
        interrupted = true;
    };
    faults->inject({.failure = std::make_exception_ptr(TransientException("Busy"))});
    RetryingClient client(counted, {10s, 10s, 1min}, interrupting, [&] { return interrupted; });
    getLogger().setEnabledSeverities(foundation::log::severity::progress);
    std::string log;
    foundation::log::setSink([&](std::uint32_t, std::string_view, std::string_view text) { log = text; });
    EXPECT_THROW(client.getObjectInfo("a"), TransientException);
    foundation::log::setSink({});
    EXPECT_EQ(log, "getObjectInfo of \"a\": attempt 1 failed, retrying in 10.000 s: Busy");
    EXPECT_EQ(time.time_since_epoch(), 100ms);
    EXPECT_EQ(counted->callSnapshot().totalCalls(), 1U);
}

TEST_F(RetryingClientTest, JitterReachesItsBounds)
{
    std::set<RetryClock::Duration::rep> drawn;
    for (int i = 0; i < 1000; ++i)
    {
        drawn.insert(uniformJitter(RetryClock::Duration(3)).count());
    }
    EXPECT_THAT(drawn, ElementsAre(0, 1, 2, 3));
}

/// Without positions, which it says as the buffers of Boost do; or with such as mean nothing.
template <bool claimsToSeek>
class Pipe : public std::stringbuf
{
    using std::stringbuf::stringbuf;

    pos_type seekoff(off_type, std::ios_base::seekdir, std::ios_base::openmode) override
    {
        return claimsToSeek ? m_position++ : throw std::ios_base::failure("no positions");
    }

    off_type m_position = 0;
};

template <typename Buffer>
std::unique_ptr<std::streambuf> text(std::string& bytes)
{
    return std::make_unique<Buffer>(bytes);
}

template <typename Array> // as the provider has it
std::unique_ptr<std::streambuf> memory(std::string& bytes)
{
    return std::make_unique<boost::iostreams::stream_buffer<Array>>(bytes.data(), bytes.size());
}

TEST_F(RetryingClientTest, FurtherTriesMoveTheSameBytesOrNone)
{
    using Moment = Fault::Moment;
    const struct
    {
        const char* name;
        bool download;
        std::unique_ptr<std::streambuf> (*open)(std::string& bytes);
        std::size_t moved; // bytes, by the first try before it fails or begins
        Moment moment;
        const char* failure; // part of the detail; empty: the call succeeds
    } rows[] = {
        {"put beyond the end", false, text<std::stringbuf>, 11, Moment::BeforeEffect, ""},
        {"put part", false, memory<boost::iostreams::array_source>, 4, Moment::BeforeEffect, ""},
        {"put from an untouched pipe", false, text<Pipe<false>>, 0, Moment::BeforeEffect, ""},
        {"put from a pipe", false, text<Pipe<false>>, 0, Moment::AfterEffect, "the content stream cannot be rewound"},
        {"put from a liar", false, text<Pipe<true>>, 0, Moment::BeforeEffect, "the content stream cannot be rewound"},
        {"get part", true, text<std::stringbuf>, 4, Moment::BeforeEffect, ""},
        {"get everything", true, memory<boost::iostreams::array_sink>, 0, Moment::AfterEffect, ""},
        {"get into an untouched pipe", true, text<Pipe<false>>, 0, Moment::BeforeEffect, ""},
        {"get into a pipe", true, text<Pipe<false>>, 0, Moment::AfterEffect, "the content stream cannot be rewound"},
        {"get what became shorter", true, text<std::stringbuf>, 11, Moment::BeforeEffect, "became shorter"},
    };
    for (const auto& row : rows)
    {
        SCOPED_TRACE(row.name);
        std::string bytes = "abc0123456789";
        const auto buffer = row.open(bytes);
        std::iostream stream(buffer.get());
        store->put("k", "9876543210");
        const auto reset = std::make_exception_ptr(TransientException("Reset", "connection reset"));
        faults->inject({.call = 1, .moment = row.moment, .failure = reset});
        const auto move = [&](const std::string& some)
        { row.download ? void(stream << some) : void(stream.ignore(static_cast<std::streamsize>(some.size()))); };
        move("new");
        std::string partial(row.moved, 'X');
        faults->setHook([&](Operation, const std::string&) { move(std::exchange(partial, "")); });
        RetryingClient client(counted, {}, clock());
        const auto transfer = [&]
        { row.download ? client.getObjectRange("k", stream, 0, 0) : client.putObject("k", stream, 10); };
        if (*row.failure != '\0')
        {
            EXPECT_THAT(transfer, Throws<UnknownErrorException>(hasDetail(row.failure)));
            continue;
        }
        EXPECT_NO_THROW(transfer());
        const auto* const string = dynamic_cast<std::stringbuf*>(buffer.get());
        EXPECT_EQ(string != nullptr ? string->str() : bytes, row.download ? "new9876543210" : "abc0123456789");
        EXPECT_EQ(store->get("k"), row.download ? "9876543210" : "0123456789");
    }
}

} // namespace

} // namespace storage::clients
