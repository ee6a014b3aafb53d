#include <storage/clients/common/TransientException.hpp>
#include <storage/clients/decorators/CancellableClient.hpp>
#include <storage/clients/decorators/CountingClient.hpp>
#include <storage/clients/decorators/FailureRecordingClient.hpp>
#include <storage/clients/decorators/FaultyClient.hpp>
#include <storage/clients/decorators/FindInterface.hpp>
#include <storage/clients/decorators/RetryingClient.hpp>
#include <storage/clients/memory/MemoryClient.hpp>
#include <storage/clients/testing/ClientCalls.hpp>
#include <storage/cloudprovider/CloudExceptions.hpp>
#include <storage/cloudprovider/Logger.hpp>

#include <foundation/log/Severity.hpp>
#include <foundation/log/basic_diagnostic_logger.hpp>

#include <boost/iostreams/device/array.hpp>
#include <boost/iostreams/stream_buffer.hpp>
#include <gmock/gmock.h>

#include <functional>
#include <map>
#include <set>
#include <sstream>

namespace storage::clients
{

namespace
{

using namespace cloudprovider;
using namespace conformance;
using namespace std::chrono_literals;
using namespace testing;

class DecoratorTest : public Test
{
protected:
    const std::shared_ptr<MemoryClient> store = std::make_shared<MemoryClient>();
    const std::shared_ptr<FaultyClient> faults = std::make_shared<FaultyClient>(store);
    const std::shared_ptr<CountingClient> counted = std::make_shared<CountingClient>(faults);
    const std::exception_ptr denied = std::make_exception_ptr(PermissionDeniedException("Denied"));
    const std::exception_ptr busy = std::make_exception_ptr(TransientException("Busy", "store busy"));

    // The operations that store bytes, done on an object of 3 bytes.
    const std::map<Operation, std::function<void(CloudClient& client, const std::string& key)>> storing{
        {Operation::PutObject, [](auto& client, const auto& key) { put(client, key, "new"); }},
        {Operation::CreateMultipartUpload,
            [](auto& client, const auto& key) { client.createMultipartUpload(key, ""); }},
        {Operation::UploadPart, [this](auto& client, const auto& key)
            { uploadPart(client, key, store->createMultipartUpload(key, ""), 0, "new"); }},
        {Operation::CopyPart,
            [this](auto& client, const auto& key) {
                client.copyPart(key, store->createMultipartUpload(key, ""), {0, 0, 3, ""});
            }},
        {Operation::CompleteMultipartUpload,
            [this](auto& client, const auto& key)
            {
                const std::string upload = store->createMultipartUpload(key, "");
                client.completeMultipartUpload(key, upload, {uploadPart(*store, key, upload, 0, "new")});
            }},
    };
};

TEST_F(DecoratorTest, RefusesToStoreACancelledKeyOrAfterAnInterrupt)
{
    for (const auto& [operation, call] : storing)
    {
        SCOPED_TRACE(name(operation));
        bool interrupted = false;
        CancellableClient client(store, [&] { return interrupted; });
        store->put("a", "old");
        store->put("b", "old");
        const auto expectRefusal = [&, &operation = operation, &call = call]
        {
            if (operation != Operation::CreateMultipartUpload) // stores nothing; a close would not report its failure
            {
                EXPECT_THROW(call(client, "a"), UnknownErrorException);
            }
            EXPECT_EQ(store->get("a"), "old");
            EXPECT_NO_THROW(client.abortMultipartUpload("a", client.createMultipartUpload("a", "")));
        };
        {
            const auto outer = client.cancel("a");
            {
                const auto inner = client.cancel("a");
            }
            expectRefusal();
            EXPECT_NO_THROW(call(client, "b"));
        }
        interrupted = true;
        expectRefusal();
        EXPECT_THROW(client.deleteObject("a"), UnknownErrorException);
        interrupted = false;
        EXPECT_NO_THROW(call(client, "a"));
    }
}

TEST_F(DecoratorTest, RecordsAFailureUntilItIsTakenOrTheKeyIsStored)
{
    for (const auto& [operation, call] : storing)
    {
        SCOPED_TRACE(name(operation));
        FailureRecordingClient client(faults);
        store->put("a", "old");
        faults->inject({.operation = operation});
        EXPECT_THROW(call(client, "a"), UnknownErrorException);
        EXPECT_EQ(client.takeFailure("b"), nullptr);
        EXPECT_THROW(std::rethrow_exception(client.takeFailure("a")), UnknownErrorException);
        EXPECT_EQ(client.takeFailure("a"), nullptr);

        EXPECT_THROW(call(client, "a"), UnknownErrorException);
        faults->clearFaults();
        storing.at(operation == Operation::PutObject ? operation : Operation::CompleteMultipartUpload)(client, "a");
        EXPECT_EQ(client.takeFailure("a"), nullptr);
    }
}

TEST_F(DecoratorTest, RecordsOnlyFailuresOfKeys)
{
    FailureRecordingClient client(store);
    EXPECT_THROW(client.validateObjectName(".."), CloudException);
    EXPECT_THROW(client.abortMultipartUpload("..", "none"), CloudException);
    EXPECT_EQ(client.takeFailure(".."), nullptr);
    EXPECT_THROW(client.getObjectParts(".."), CloudException);
    EXPECT_NE(client.takeFailure(".."), nullptr);
}

TEST_F(DecoratorTest, CountsCallsAndWhatTheyMoved)
{
    EXPECT_EQ(PrintToString(counted->callSnapshot()), "no calls");
    std::istringstream bytes("0123456789abcde");
    counted->putObject("k", bytes, 10);
    const std::string id = counted->createMultipartUpload("k", "");
    counted->copyPart("k", id, counted->getObjectParts("k").at(0));
    counted->uploadPart("k", id, {7, 0, 3, ""}, bytes);
    EXPECT_THROW(counted->uploadPart("k", id, {8, 0, 5, ""}, bytes), UnknownErrorException) << "too short";
    std::ostringstream out("....");
    out.seekp(2);
    counted->getObjectRange("k", out, 6, 9);
    EXPECT_THROW(counted->getObjectRange("k", out, 6, 10), UnknownErrorException) << "beyond the end";
    out << ' ' << counted->callSnapshot();
    EXPECT_EQ(out.str(), "..6789 getObjectRange 2 (4 B), putObject 1 (10 B), getObjectParts 1, "
                         "createMultipartUpload 1, uploadPart 2 (3 B; parts 7), copyPart 1 (10 B; parts 0)");
}

TEST_F(DecoratorTest, InjectsFaultsAndEmptyPages)
{
    faults->inject({.call = 3});
    faults->inject({.operation = Operation::PutObject, .call = 3});
    put(*faults, "first", "");
    faults->getObjectInfo("first");
    EXPECT_THAT([&] { put(*faults, "third call", ""); },
        Throws<UnknownErrorException>(
            Property(&CloudException::detail, Optional(std::string("putObject of \"third call\": injected fault")))));
    EXPECT_THROW(put(*faults, "third put", ""), UnknownErrorException);
    EXPECT_NO_THROW(put(*faults, "last", ""));

    faults->inject({.operation = Operation::PutObject});
    faults->inject({.moment = Fault::Moment::AfterEffect, .failure = denied});
    for (int i = 0; i < 2; ++i)
    {
        EXPECT_THROW(put(*faults, "both faults", ""), UnknownErrorException) << "the first one is thrown";
    }
    EXPECT_THROW(faults->createMultipartUpload("k", ""), PermissionDeniedException);
    EXPECT_EQ(store->openUploads().size(), 1U);
    faults->clearFaults();

    faults->setEmptyPages(2);
    std::string token;
    EXPECT_THAT(faults->listObjects("", token, {}), IsEmpty());
    EXPECT_THAT(faults->listObjects("", token, {}), IsEmpty());
    EXPECT_THAT(faults->listObjects("", token, {}), SizeIs(2));
    EXPECT_EQ(token, "");
}

TEST_F(DecoratorTest, FindsInterfacesInsideDecorators)
{
    CancellableClient client(std::make_shared<FailureRecordingClient>(counted));
    EXPECT_EQ(findInterface<UploadInventory>(client), store.get());
    EXPECT_EQ(findInterface<const StoreCounters>(client), counted.get());
    EXPECT_NE(findInterface<FailureRecordingClient>(client), nullptr);
    EXPECT_EQ(findInterface<std::istream>(client), nullptr);
}

class RetryingClientTest : public DecoratorTest
{
protected:
    /// A clock that only waits move. Jitter is at its maximum.
    RetryClock clock()
    {
        const auto sleep = [this](RetryClock::Duration nap)
        {
            EXPECT_LE(nap, 100ms) << "an interrupt is noticed after that time";
            time += nap;
            interrupted = interrupts;
        };
        return {[this] { return time; }, sleep, [](RetryClock::Duration max) { return max; }};
    }

    std::chrono::steady_clock::time_point time;
    bool interrupts = false; // the process is interrupted during the first wait
    bool interrupted = false;
};

auto hasDetail(const std::string& text)
{
    return Property(&CloudException::detail, Optional(HasSubstr(text)));
}

TEST_F(RetryingClientTest, WaitsThenGivesUp)
{
    using std::chrono::milliseconds;
    const struct
    {
        const char* name;
        RetryPolicy policy;
        milliseconds duration; // of an attempt
        std::optional<milliseconds> retryAfter;
        std::vector<int> attempts; // ms after the call began
        std::string summary;
        std::size_t progressing = 0; // attempts, the first ones, that make progress
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
    };
    for (const auto& row : rows)
    {
        SCOPED_TRACE(row.name);
        const auto begin = time;
        auto lastEnd = time;
        RetryingClient client(counted, row.policy, clock());
        std::vector<int> attempts;
        faults->setHook(
            [&](Operation, const std::string&)
            {
                EXPECT_EQ(client.waiting().failedAttempts, attempts.size());
                EXPECT_EQ(client.waiting().quietTime, time - lastEnd);
                attempts.push_back(static_cast<int>((time - begin) / 1ms));
                time += row.duration;
                lastEnd = time;
                throw TransientException("Busy", "store busy", row.retryAfter, attempts.size() <= row.progressing);
            });
        EXPECT_THAT([&] { client.deleteObject("a"); },
            Throws<TransientException>(
                AllOf(hasDetail("store busy; gave up after " + row.summary + " s after the first: another attempt"),
                    Property(&TransientException::retryAfter, row.retryAfter))));
        EXPECT_EQ(attempts, row.attempts);
        EXPECT_EQ(client.waiting().failedAttempts, 0U);
    }
}

TEST_F(RetryingClientTest, DoesNotRetryOtherFailuresNorAfterAnInterrupt)
{
    interrupts = true;
    RetryingClient client(counted, {10s, 10s, 1min}, clock(), [&] { return interrupted; });
    faults->inject({.call = 1, .failure = denied});
    EXPECT_THROW(client.getObjectInfo("a"), PermissionDeniedException);
    EXPECT_EQ(counted->callSnapshot().totalCalls(), 1U);

    faults->inject({.failure = busy});
    getLogger().setEnabledSeverities(foundation::log::severity::progress);
    std::string log;
    foundation::log::setSink([&](std::uint32_t, std::string_view, std::string_view text) { log = text; });
    EXPECT_THROW(client.getObjectInfo("a"), TransientException);
    foundation::log::setSink({});
    getLogger().setEnabledSeverities(0);
    EXPECT_EQ(log, "getObjectInfo of \"a\": attempt 1 failed, retrying in 10.000 s: store busy");
    EXPECT_EQ(time.time_since_epoch(), 100ms);
    EXPECT_THROW(client.abortMultipartUpload("a", "id"), TransientException);
    EXPECT_THROW(client.abortMultipartUpload("a", "id"), TransientException) << "not sent";
    EXPECT_EQ(counted->callSnapshot().totalCalls(), 3U);
}

TEST_F(RetryingClientTest, WaitsOnceForAnUploadWhoseStoreWentAway)
{
    RetryingClient client(counted, {1s, 1s, 1min}, clock());
    const std::string id = client.createMultipartUpload("k", "");
    const std::string other = client.createMultipartUpload("k", "");
    const PartInfo part = uploadPart(client, "k", id, 0, "x");
    bool isFirst = true;
    faults->inject({.failure = busy});
    faults->setHook(
        [&](Operation, const std::string&)
        {
            if (std::exchange(isFirst, false))
            {
                EXPECT_THROW(uploadPart(client, "k", id, 2, "y"), TransientException);
                throw TransientException("Busy", "store busy", std::nullopt, true); // would get another budget
            }
        });
    const struct
    {
        std::function<void()> call;
        std::chrono::seconds waited;
        std::uint64_t attempts;
    } rows[] = {{[&] { uploadPart(client, "k", id, 1, "x"); }, 60s, 62}, // the other part has waited, this one has not
        {[&] { uploadPart(client, "k", id, 1, "x"); }, 0s, 0}, {[&] { client.copyPart("k", id, part); }, 0s, 0},
        {[&] { client.completeMultipartUpload("k", id, {part}); }, 0s, 0},
        {[&] { client.abortMultipartUpload("k", id); }, 0s, 1}, {[&] { client.abortMultipartUpload("k", id); }, 0s, 0},
        {[&] { uploadPart(client, "k", other, 0, "x"); }, 60s, 61},
        {[&] { uploadPart(client, "k", id, 1, "x"); }, 60s, 61}};
    for (const auto& row : rows)
    {
        const auto begin = time;
        const std::uint64_t before = counted->callSnapshot().totalCalls();
        EXPECT_THAT(row.call, Throws<TransientException>(hasDetail("gave up")));
        EXPECT_EQ(time - begin, row.waited);
        EXPECT_EQ(counted->callSnapshot().totalCalls() - before, row.attempts);
    }
    faults->clearFaults();
    client.abortMultipartUpload("k", id);
    EXPECT_NO_THROW(client.abortMultipartUpload("k", other)) << "it ends the record, too";
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

/// A buffer without positions, which reports this as Boost's buffers do, or reports meaningless positions.
template <bool reportsPositions>
class Pipe : public std::stringbuf
{
    using std::stringbuf::stringbuf;

    pos_type seekoff(off_type, std::ios_base::seekdir, std::ios_base::openmode) override
    {
        return reportsPositions ? m_position++ : throw std::ios_base::failure("no positions");
    }

    off_type m_position = 0;
};

template <typename Buffer>
std::unique_ptr<std::streambuf> text(std::string& bytes)
{
    return std::make_unique<Buffer>(bytes);
}

template <typename Array> // as the provider uses it
std::unique_ptr<std::streambuf> memory(std::string& bytes)
{
    return std::make_unique<boost::iostreams::stream_buffer<Array>>(bytes.data(), bytes.size());
}

TEST_F(RetryingClientTest, RetriesMoveTheSameBytesOrNone)
{
    using Moment = Fault::Moment;
    const std::string noRewind = "the content stream cannot be rewound";
    const struct
    {
        const char* name;
        bool download;
        std::unique_ptr<std::streambuf> (*open)(std::string& bytes);
        std::size_t moved; // bytes, by the first attempt before it fails or begins
        Moment moment;
        std::string failure; // part of the detail; empty: the call succeeds
    } rows[] = {
        {"put beyond the end", false, text<std::stringbuf>, 11, Moment::BeforeEffect, ""},
        {"put from memory", false, memory<boost::iostreams::array_source>, 4, Moment::BeforeEffect, ""},
        {"put from an untouched pipe", false, text<Pipe<false>>, 0, Moment::BeforeEffect, ""},
        {"put from a pipe", false, text<Pipe<false>>, 0, Moment::AfterEffect, noRewind},
        {"put with wrong positions", false, text<Pipe<true>>, 0, Moment::BeforeEffect, noRewind},
        {"get part", true, text<std::stringbuf>, 4, Moment::BeforeEffect, ""},
        {"get everything", true, memory<boost::iostreams::array_sink>, 0, Moment::AfterEffect, ""},
        {"get into an untouched pipe", true, text<Pipe<false>>, 0, Moment::BeforeEffect, ""},
        {"get into a pipe", true, text<Pipe<false>>, 0, Moment::AfterEffect, noRewind},
        {"get what became shorter", true, text<std::stringbuf>, 11, Moment::BeforeEffect, "became shorter"},
    };
    for (const auto& row : rows)
    {
        SCOPED_TRACE(row.name);
        std::string bytes = "abc0123456789";
        const auto buffer = row.open(bytes);
        std::iostream stream(buffer.get());
        store->put("k", "9876543210");
        store->getObjectParts("k");
        faults->inject({.call = 1, .moment = row.moment, .failure = busy});
        const auto move = [&](const std::string& some)
        { row.download ? void(stream << some) : void(stream.ignore(static_cast<std::streamsize>(some.size()))); };
        move("new");
        std::string partial(row.moved, 'X');
        faults->setHook([&](Operation, const std::string&) { move(std::exchange(partial, "")); });
        RetryingClient client(counted, {}, clock());
        const auto transfer = [&]
        { row.download ? client.getObjectRange("k", stream, 0, 0) : client.putObject("k", stream, 10); };
        if (!row.failure.empty())
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
