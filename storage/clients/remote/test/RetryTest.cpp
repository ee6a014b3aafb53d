#include "Retry.hpp"
#include "FakeClock.hpp"

#include <storage/cloudprovider/CloudExceptions.hpp>
#include <storage/cloudprovider/Logger.hpp>

#include <foundation/log/Severity.hpp>
#include <foundation/log/basic_diagnostic_logger.hpp>

#include <gmock/gmock.h>

#include <functional>
#include <future>
#include <mutex>
#include <optional>
#include <set>
#include <string>
#include <tuple>
#include <vector>

namespace storage::clients
{

namespace
{

using namespace cloudprovider;
using namespace std::chrono_literals;
using namespace testing;
using std::chrono::milliseconds;

class RetryTest : public Test
{
protected:
    [[noreturn]] void fail()
    {
        ++attempts;
        throw TransientException("Busy", "store busy");
    }

    test::FakeClock time;
    const std::string key = "a";
    const Retry::Request lookup{Operation::GetObjectInfo, key};
    unsigned attempts = 0;
};

auto hasDetail(const std::string& text)
{
    return Property(&CloudException::detail, Optional(HasSubstr(text)));
}

TEST_F(RetryTest, WaitsThenGivesUp)
{
    const struct
    {
        const char* name;
        RetryPolicy policy;
        milliseconds duration; // of an attempt
        std::optional<milliseconds> retryAfter;
        std::vector<int> attempts; // ms after the request began
        std::string summary;
        std::size_t progressing = 0; // attempts, the first ones, that make progress
        Operation operation = Operation::GetObjectInfo;
        bool tooMany = false;
    } rows[] = {
        {"doubles", {100ms, 1s, 3500ms}, 0ms, {}, {0, 100, 300, 700, 1500, 2500, 3500}, "attempt 7, 3.5"},
        {"starts at the maximum", {5s, 1s, 2s}, 0ms, {}, {0, 1000, 2000}, "attempt 3, 2.0"},
        {"expects attempts as long as the last", {100ms, 20s, 3300ms}, 1s, {}, {0, 1100, 2300}, "attempt 3, 3.3"},
        {"begins no attempt that would end later", {100ms, 20s, 3299ms}, 1s, {}, {0, 1100}, "attempt 2, 2.1"},
        {"tries twice where the time allows one", {100ms, 20s, 1100ms}, 1s, {}, {0, 1100}, "attempt 2, 2.1"},
        {"obeys the store", {100ms, 20s, 12s}, 0ms, 5s, {0, 5100, 10300}, "attempt 3, 10.3"},
        {"store asks for too long", {1ms, 1ms, 12s}, 0ms, 12s, {0}, "attempt 1, 0.0"},
        {"store asks for the maximum", {1ms, 1ms, 12s}, 0ms, milliseconds::max(), {0}, "attempt 1, 0.0"},
        {"store asks for less than nothing", {100ms, 20s, 300ms}, 0ms, -5s, {0, 100, 300}, "attempt 3, 0.3"},
        {"restarts after progress", {100ms, 20s, 300ms}, 0ms, {}, {0, 100, 200, 300, 500}, "attempt 5, 0.5", 3},
        {"progresses for long", {100ms, 20s, 300ms}, 400ms, {}, {0, 500, 1000}, "attempt 3, 1.4", 2},
        {"has used its time", {100ms, 20s, 1s}, 2s, {}, {0}, "attempt 1, 2.0"},
        {"sends for long", {100ms, 20s, 1s}, 2s, {}, {0, 2100}, "attempt 2, 4.1", 0, Operation::UploadPart},
        {"waits for its turn", {10ms, 20s, 300ms}, 0ms, {}, {0, 200}, "attempt 2, 0.2", 0, Operation::PutObject, true},
    };
    for (const auto& row : rows)
    {
        SCOPED_TRACE(row.name);
        const auto begin = time.now();
        auto lastEnd = begin;
        Retry retry(row.policy, time.clock(), {});
        std::vector<int> begun;
        const auto attempt = [&]
        {
            EXPECT_EQ(retry.waiting().failedAttempts, begun.size());
            EXPECT_EQ(retry.waiting().quietTime, time.now() - lastEnd);
            begun.push_back(static_cast<int>((time.now() - begin) / 1ms));
            time.pass(row.duration);
            lastEnd = time.now();
            row.tooMany ? throw TooManyRequests("Busy", "store busy") : void();
            throw TransientException("Busy", "store busy", row.retryAfter);
        };
        const auto progress = [&] { return std::min(begun.size(), row.progressing); };
        const Retry::Request request{row.operation, key};
        EXPECT_THAT([&] { retry.run(request, attempt, progress); },
            Throws<TransientException>(
                AllOf(hasDetail("store busy; gave up after " + row.summary + " s after the first: another attempt"),
                    Property(&TransientException::retryAfter, row.retryAfter))));
        EXPECT_EQ(begun, row.attempts);
        EXPECT_EQ(retry.waiting().failedAttempts, 0U);
    }
}

TEST_F(RetryTest, DoesNotRetryOtherFailuresNorAfterAnInterrupt)
{
    bool interrupted = false;
    RetryClock clock = time.clock();
    clock.sleep = [&](RetryClock::Duration nap)
    {
        EXPECT_LE(nap, 100ms) << "an interrupt is noticed after that time";
        time.pass(nap);
        interrupted = true;
    };
    Retry retry({10s, 10s, 1min}, clock, [&] { return interrupted; });
    const auto deny = [&]
    {
        ++attempts;
        throw PermissionDeniedException("Denied");
    };
    EXPECT_THROW(retry.run(lookup, deny), PermissionDeniedException);
    EXPECT_EQ(std::exchange(attempts, 0), 1U);

    getLogger().setEnabledSeverities(foundation::log::severity::progress);
    std::string log;
    foundation::log::setSink([&](std::uint32_t, std::string_view, std::string_view text) { log = text; });
    EXPECT_THAT([&] { retry.run(lookup, [&] { fail(); }); }, Throws<TransientException>(hasDetail(": interrupted")));
    foundation::log::setSink({});
    getLogger().setEnabledSeverities(0);
    EXPECT_EQ(log, "getObjectInfo of \"a\": attempt 1 failed, retrying in 10.000 s: store busy");
    EXPECT_EQ(time.now().time_since_epoch(), 100ms);
    EXPECT_EQ(attempts, 1U);
}

TEST_F(RetryTest, RetriesAnUnusableResponseOnce)
{
    Retry retry({}, time.clock(), {});
    const auto misunderstand = [&]
    {
        ++attempts;
        throw UnusableResponse("Malformed response", "no length");
    };
    EXPECT_THAT([&] { retry.run(lookup, misunderstand); },
        Throws<TransientException>(hasDetail("no length; gave up after attempt 2")));
    EXPECT_EQ(attempts, 2U);
}

TEST_F(RetryTest, StopsWhenAnotherRequestOfTheUploadGivesUp)
{
    Retry retry({1s, 1s, 1min}, time.clock(), {});
    Outage outage;
    const Retry::Request part{Operation::UploadPart, key, &outage};
    const auto send = [&] { retry.run(part, [&] { fail(); }); };
    bool isFirst = true;
    EXPECT_THAT([&] { retry.run(part, [&] { std::exchange(isFirst, false) ? send() : void(), fail(); }); },
        Throws<TransientException>(hasDetail("gave up")));
    EXPECT_THAT(send, Throws<TransientException>(hasDetail("gave up")));
    EXPECT_EQ(attempts, 61U);
    EXPECT_EQ(time.now().time_since_epoch(), 60s);
    time.pass(1min);
    EXPECT_EQ(retry.run(part, [] { return 7; }), 7);
}

TEST_F(RetryTest, HalvesTheRateAtARefusalAndRaisesItSlowlyThenFast)
{
    // Columns: name, attempts before the refusals (one each 10 ms), how many are refused, time between these, time
    // after them, ms between attempts from then on.
    for (const auto& [name, begun, refusals, apart, passed, interval] : {
             std::tuple("an event counts once", 1000, 9, 0ms, 0ms, 20.),
             std::tuple("is at the refused rate again", 1000, 1, 0ms, 7937ms, 10.),
             std::tuple("has doubled it", 1000, 1, 0ms, 17937ms, 5.),
             std::tuple("has a minimum", 1000, 100, 2000ms, 0ms, 10'000.),
             std::tuple("one refusal does not stop who sends little", 1, 1, 0ms, 0ms, 200.),
         })
    {
        RequestRate rate;
        for (int i = 0; i < begun; ++i, time.pass(10ms))
        {
            EXPECT_EQ(rate.begin(time.now()), 0ms);
        }
        for (int i = 0; i < refusals; ++i)
        {
            time.pass(i > 0 ? apart : 0ms);
            rate.refused(time.now(), time.now());
            rate.refused(time.now() - 1ms, time.now()); // was in progress, so does not count
        }
        time.pass(passed);
        const auto next = std::max(rate.begin(time.now()), rate.begin(time.now()));
        EXPECT_NEAR(std::chrono::duration<double>(next) / 1ms, interval, interval / 50) << name;
    }
}

TEST_F(RetryTest, ApproachesTheRateOfTheStore)
{
    Retry retry({}, time.clock(), {});
    std::mutex mutex; // guards the store: it accepts 50 requests per second, not necessarily one each 20 ms
    auto free = time.now();
    const auto attempt = [&]
    {
        const std::lock_guard lock(mutex);
        time.pass(1ms);
        time.now() < free - 1s ? throw TooManyRequests("Busy", std::to_string(++attempts))
                               : void(free = std::max(free, time.now()) + 20ms);
    };
    const std::vector<int> requests(1000);
    const auto send = [&]
    { std::for_each(requests.begin(), requests.end(), [&](int) { retry.run(lookup, attempt); }); };
    auto other = std::async(std::launch::async, send);
    send();
    other.get();
    EXPECT_LT(attempts, 40U) << "were refused, of 2,000";
    EXPECT_LT(time.now().time_since_epoch(), 60s) << "40 s are the minimum";
}

TEST_F(RetryTest, JitterReachesItsBounds)
{
    std::set<RetryClock::Duration::rep> drawn;
    for (int i = 0; i < 1000; ++i)
    {
        drawn.insert(uniformJitter(RetryClock::Duration(3)).count());
    }
    EXPECT_THAT(drawn, ElementsAre(0, 1, 2, 3));
}

} // namespace

} // namespace storage::clients
