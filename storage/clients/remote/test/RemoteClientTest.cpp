#include "FakeClock.hpp"
#include "MemoryRemoteStore.hpp"
#include "awaitThreads.hpp"

#include <storage/clients/remote/ContentType.hpp>
#include <storage/clients/remote/RemoteClient.hpp>
#include <storage/clients/remote/RemoteFailures.hpp>
#include <storage/clients/testing/ClientCalls.hpp>
#include <storage/cloudprovider/CloudExceptions.hpp>
#include <storage/cloudprovider/Logger.hpp>

#include <foundation/log/Severity.hpp>
#include <foundation/log/basic_diagnostic_logger.hpp>

#include <gmock/gmock.h>

#include <algorithm>
#include <array>
#include <atomic>
#include <functional>
#include <future>
#include <map>
#include <mutex>
#include <random>
#include <sstream>

#include <pthread.h>

// The client over a store in memory, in which any request can fail.

namespace storage::clients
{

namespace
{

using namespace cloudprovider;
using namespace conformance;
using namespace test;
using namespace testing;
using namespace std::chrono_literals;
using How = Fault::How;

std::string content(std::size_t size, unsigned seed)
{
    std::string bytes(size, '\0');
    std::minstd_rand next(seed + 1);
    std::generate(bytes.begin(), bytes.end(), [&] { return static_cast<char>('a' + next() / 256 % 26); });
    return bytes;
}

/// @return nullopt: the call has succeeded
std::optional<std::string> failureOf(const std::function<void()>& call)
try
{
    call();
    return std::nullopt;
}
catch (const CloudException& failure)
{
    return failure.what() + (": " + failure.detail().value_or(""));
}

using Parts = std::vector<PartInfo>;

ObjectMetadata ofNewFile(const std::string& key)
{
    return {{"type", "that of " + key}};
}

/// Replace bytes of an object as a file does: upload the parts that change, copy the others. After a failure the upload
/// is aborted.
/// @param bytes  may continue beyond the end
void patch(CloudClient& client, const std::string& key, std::size_t offset, std::string_view bytes)
{
    Parts parts = client.getObjectParts(key);
    const std::string id = client.createMultipartUpload(key, parts[0].Tag);
    try
    {
        for (PartInfo& part : parts)
        {
            const bool isLast = &part == &parts.back();
            const std::size_t oldEnd = part.Offset + part.Size;
            const std::size_t end = isLast ? std::max(oldEnd, offset + bytes.size()) : oldEnd;
            const std::size_t from = std::max(offset, part.Offset);
            const std::size_t to = std::min(offset + bytes.size(), end);
            if (from >= to)
            {
                part.Tag = client.copyPart(key, id, part);
                continue;
            }
            std::string changed = part.Size == 0 ? "" : get(client, key, part.Offset, oldEnd - 1);
            changed.resize(end - part.Offset);
            changed.replace(from - part.Offset, to - from, bytes.substr(from - offset, to - from));
            part = uploadPart(client, key, id, part.Index, changed, part.Offset);
        }
        client.completeMultipartUpload(key, id, parts);
    }
    catch (const CloudException&)
    {
        failureOf([&] { client.abortMultipartUpload(key, id); });
        throw;
    }
}

/// Make a file longer and change some of it, as the provider does: parts are written in any order, some twice, and all
/// again after a failure. The file grows by parts of 100 bytes.
/// @param stored  the parts that it has; of a new file: an empty one
void rewrite(CloudClient& client, const std::string& key, const Parts& stored, const std::string& before,
    const std::string& after, std::mt19937& random)
{
    Parts parts = stored;
    parts.back().Size = std::min(std::max<std::size_t>(parts.back().Size, 100), after.size() - parts.back().Offset);
    for (std::size_t end = parts.back().Offset + parts.back().Size; end < after.size(); end += 100)
    {
        parts.push_back({parts.size(), end, std::min<std::size_t>(100, after.size() - end), ""});
    }
    const auto untilItSucceeds = [](const std::function<void()>& call)
    {
        for (int attempts = 0; const auto failure = failureOf(call); ++attempts)
        {
            ASSERT_LT(attempts, 100) << *failure;
        }
    };
    Parts order = parts;
    const std::string id = client.createMultipartUpload(key, stored[0].Tag);
    for (const bool isFinal : {false, true})
    {
        std::ranges::shuffle(order, random);
        for (const PartInfo& part : order)
        {
            const std::string bytes = isFinal ? after.substr(part.Offset, part.Size) : std::string(part.Size, '#');
            const bool isCopied =
                part.Offset < before.size() && before.substr(part.Offset, part.Size) == bytes; // sizes are equal, too
            const auto transfer = [&]
            {
                parts[part.Index].Tag = isCopied ? client.copyPart(key, id, stored[part.Index])
                                                 : uploadPart(client, key, id, part.Index, bytes, part.Offset).Tag;
            };
            isFinal || random() % 2 == 0 ? untilItSucceeds(transfer) : void();
        }
    }
    untilItSucceeds([&] { client.completeMultipartUpload(key, id, parts); });
}

class RemoteClientTest : public Test
{
protected:
    RemoteClientTest()
    {
        getLogger().setEnabledSeverities(0);
        bucket->abilities.minPartSize = 100;
        bucket->abilities.maxCopySize = 1'000;
        bucket->abilities.maxTakeSize = 1'000;
    }

    ~RemoteClientTest() override
    {
        bucket->hold("");
        client.reset();
        awaitThreads(1);
        EXPECT_EQ(bucket->openUploads(), 0U);
    }

    void open(std::size_t transfers, std::uint64_t memory = 100'000)
    {
        client.reset();
        client = std::make_unique<RemoteClient>(
            bucket->connect(), RemoteSettings{.transfers = transfers,
                                   .memory = memory,
                                   .partSize = partSize,
                                   .retry = retry,
                                   .clock = waits,
                                   .interrupted = [this] { return isInterrupted.load(); },
                                   .newMetadata = ofNewFile});
    }

    /// Whether the store compares versions itself.
    void setConditions(bool areHonoured)
    {
        StoreAbilities& can = bucket->abilities;
        can.conditionalWrites = can.conditionalCreation = can.conditionalCompletion = areHonoured;
        can.conditionalTakes = areHonoured;
    }

    std::string begin(const std::string& tag = "") { return client->createMultipartUpload("k", tag); }

    PartInfo send(const std::string& id, std::size_t index, const std::string& bytes)
    {
        return uploadPart(*client, "k", id, index, bytes);
    }

    void complete(const std::string& id, const Parts& parts) { client->completeMultipartUpload("k", id, parts); }

    /// Store bytes as those of a source that can be read in any order, or of a stream.
    /// @param read  called before each reading, and at the end
    /// @return how many bytes are said to have been sent, or were read
    std::uint64_t store(
        const std::string& bytes, const std::function<void()>& read = [] {}, bool isStream = false)
    {
        std::atomic<std::uint64_t> sent = 0;
        bool hasEnded = false;
        const auto copyNext = [&](char* target, std::size_t size)
        {
            read();
            const std::size_t count = bytes.copy(target, std::min<std::size_t>(size, 70), sent);
            EXPECT_FALSE(std::exchange(hasEnded, count == 0)) << "the next bytes would be others";
            sent += count;
            return count;
        };
        if (isStream)
        {
            client->uploadStream("k", copyNext);
            return sent;
        }
        const auto copy = [&](std::uint64_t offset, char* target, std::size_t size)
        {
            read();
            bytes.copy(target, size, offset);
        };
        client->uploadObject("k", {bytes.size(), copy, read, [&](std::uint64_t count) { sent += count; }});
        return sent;
    }

    /// Wait until the store has received so many parts.
    void awaitParts(std::ptrdiff_t count)
    {
        bucket->await([&](const auto& requests)
            { return std::ranges::count(requests, "uploadPart", &StoreRequest::operation) >= count; });
    }

    /// Let requests for an operation fail, until endFaults(). Call this while no request runs.
    /// @param first, last  by number, from 1
    void fail(const std::string& operation, const Fault& fault, unsigned first = 1, unsigned last = 1'000'000)
    {
        lastFault = last;
        bucket->faults = [=, this, number = std::make_shared<std::atomic<unsigned>>(0)](const StoreRequest& request)
        {
            const unsigned now = operation.empty() || request.operation == operation ? ++*number : 0;
            return now >= first && now <= lastFault ? std::optional(fault) : std::nullopt;
        };
    }

    void endFaults() { lastFault = 0; }

    /// Count requests from 0, and change something just before one of them, which is not the end of an upload.
    void changeBefore(unsigned number, unsigned& requests, const std::function<void()>& change)
    {
        requests = 0;
        bucket->faults = [=, &requests](const StoreRequest& request) -> std::optional<Fault>
        {
            number == ++requests&& request.operation != "abortUpload" ? change() : void();
            return std::nullopt;
        };
    }

    const std::string old = content(3'000, 1);
    const Fault busy;
    const Fault denied{How::Before, std::make_exception_ptr(PermissionDeniedException("Denied"))};
    const std::shared_ptr<MemoryBucket> bucket = std::make_shared<MemoryBucket>();
    std::atomic<unsigned> lastFault = 0;
    std::atomic<bool> isInterrupted = false;
    FakeClock clock;
    RetryClock waits = clock.clock();
    RetryPolicy retry;
    std::uint64_t partSize = 64; // less than the store's minimum
    std::unique_ptr<RemoteClient> client;
};

// Each fault at each request of each call. A single temporary fault is not noticed. Whatever happens, an object is the
// old or the new one, and no part of an upload stays in the store.
TEST_F(RemoteClientTest, EndsWithTheOldOrTheNewObjectWhateverFails)
{
    using Content = std::optional<std::string>;
    const std::string small = content(500, 2);
    const std::string patched = old.substr(0, 1'000) + small + old.substr(1'500);
    const std::vector<std::string> pieces{content(150, 3), content(300, 4), content(40, 5)};
    const auto expectReads = [&](CloudClient& from)
    {
        from.getObjectParts("k");
        EXPECT_EQ(get(from, "k"), old);
        EXPECT_EQ(get(from, "k", 0, 99) + get(from, "k", 100, 999), old.substr(0, 1'000));
        EXPECT_EQ(from.getObjectInfo("k").size, old.size());
        EXPECT_EQ(keys(from), std::vector<std::string>{"k"});
    };
    const auto copyOf = [&](const std::string& source)
    {
        return [&](CloudClient&)
        {
            bucket->put("source", source);
            client->copyObject("source", "k");
        };
    };
    const struct
    {
        const char* name;
        Content before, after;
        std::function<void(CloudClient& client)> call;
    } rows[] = {
        {"put", old, small, [&](auto& by) { put(by, "k", small); }},
        {"delete", old, {}, [](auto& by) { by.deleteObject("k"); }},
        {"delete many", old, {},
            [&](auto&)
            {
                const auto failures = client->deleteObjects({"k", "other", ""});
                failures.empty() ? void() : std::rethrow_exception(failures.begin()->second);
            }},
        {"store", old, small, [&](auto&) { store(small); }},
        {"store small", old, pieces[0], [&](auto&) { store(pieces[0]); }},
        {"copy", old, small, copyOf(small)},
        {"copy ranges", old, patched, copyOf(patched)},
        {"patch", old, patched, [&](auto& by) { patch(by, "k", 1'000, small); }},
        {"append", old, old + small, [&](auto& by) { patch(by, "k", old.size(), small); }},
        {"rewrite", old, old, [&](auto& by) { patch(by, "k", old.size(), ""); }},
        {"new file", {}, pieces[0] + pieces[1] + pieces[2], [&](auto& by) { putParts(by, "k", pieces); }},
        {"abort", old, old,
            [&](auto& by)
            {
                const std::string id = by.createMultipartUpload("k", "");
                uploadPart(by, "k", id, 0, pieces[0]);
                by.abortMultipartUpload("k", id);
            }},
        {"read", old, old, expectReads},
    };
    const auto away = std::make_exception_ptr(TransientException("the store is away"));
    const struct
    {
        const char* name;
        Fault fault;
        bool isTemporary = true;
        unsigned count = 1; // of requests that fail
    } faults[] = {{"busy", busy}, {"lost", {How::After}}, {"twice", {How::Twice}},
        {"broken", {.how = How::Break, .bytes = 10}}, {"corrupt", {How::Corrupt}}, {"denied", denied, false},
        {"away", {How::Before, away}, false, 1'000'000}, {"away after", {How::After, away}, false, 1'000'000}};
    const struct
    {
        std::size_t transfers;
        bool isRequired;    // the version before the call
        bool hasConditions; // the store compares versions itself
        bool knowsTags;
        bool takes = true; // else it refuses to
    } kinds[] = {{1, true, true, true}, {1, true, false, true}, {4, false, true, true}, {4, true, false, false},
        {1, false, true, false}, {4, false, true, true, false}};
    int faultedRuns = 0;
    for (const auto& [transfers, isRequired, hasConditions, knowsTags, takes] : kinds)
    {
        setConditions(hasConditions);
        bucket->refusesTakes = !takes;
        bucket->abilities.minPartSize = takes ? 100 : 1'000;
        bucket->tagsAreHashes = knowsTags;
        for (const auto& row : rows)
        {
            for (const auto& [name, fault, isTemporary, count] : faults)
            {
                bool isOver = false;
                for (unsigned request = 1; !isOver; ++request)
                {
                    SCOPED_TRACE(Message() << row.name << ", " << name << " at request " << request << ", kind "
                                           << transfers << isRequired << hasConditions << knowsTags);
                    bucket->put("k", row.before);
                    bucket->abilities.maxTakeSize = takes ? 1'000 : 2'000;
                    fail("", fault, request, request + count - 1);
                    open(transfers);
                    bucket->takeRequests();
                    auto condition = isRequired ? client->requireVersion("k", bucket->tag("k")) : nullptr;
                    const auto failure = failureOf([&] { row.call(*client); });
                    EXPECT_FALSE(failure && isTemporary && knowsTags) << *failure;
                    condition.reset();
                    isOver = bucket->takeRequests().size() < request;
                    faultedRuns += isOver ? 0 : 1;
                    endFaults();
                    bucket->put("source", {});
                    const Content now = bucket->content("k");
                    EXPECT_TRUE(now == row.after || (failure && now == row.before));
                    Content seen;
                    const auto unknown = failureOf([&] { seen = get(*client, "k"); });
                    EXPECT_TRUE(unknown ? failure || !now : seen == now || (failure && seen == row.before));
                    clock.pass(std::chrono::hours(1)); // the end of an outage
                    client.reset();
                    EXPECT_EQ(bucket->openUploads(), 0U);
                    ASSERT_FALSE(HasFailure());
                }
            }
        }
    }
    RecordProperty("faultedRuns", faultedRuns); // for bench/campaigns/sweep.py
}

// One client opens an object, patches it and completes the upload; somebody else changes the object just before one of
// the requests that this takes.
TEST_F(RemoteClientTest, LeavesOneVersionOfTheTwo)
{
    const auto patched = [](std::string bytes) { return bytes.replace(1'000, 500, content(500, 2)); };
    const std::string theirs = content(3'000, 9);
    for (const auto& [isConditional, isRemoved] : {std::pair(true, true), {true, false}, {false, true}, {false, false}})
    {
        setConditions(isConditional);
        unsigned requests = 1;
        for (unsigned n = 1; n <= requests; ++n)
        {
            SCOPED_TRACE(Message() << "before request " << n << ' ' << isConditional << isRemoved);
            bucket->put("k", old);
            open(1);
            const auto change = isRemoved ? std::nullopt : std::optional(theirs);
            changeBefore(n, requests, [&] { bucket->put("k", change); });
            const bool failed = failureOf([&] { patch(*client, "k", 1'000, content(500, 2)); }).has_value();
            bucket->faults = {};
            EXPECT_TRUE(failed || n == 1 || n > requests || (n == requests && !isConditional));
            const std::string expected = n == 1 && !failed ? patched(theirs) : failed ? theirs : patched(old);
            EXPECT_EQ(bucket->content("k"), isRemoved && failed ? std::nullopt : std::optional(expected));
        }
    }
}

// The source is replaced just before one of the requests.
TEST_F(RemoteClientTest, CopiesOneVersionOfTheTwoOrFails)
{
    for (const auto& [size, isConditional] : {std::pair(500U, true), {500U, false}, {3'000U, true}, {3'000U, false}})
    {
        setConditions(isConditional);
        const std::string ours = content(size, 2);
        const std::string theirs = content(size, 9);
        unsigned requests = 1;
        for (unsigned n = 1; n <= requests; ++n)
        {
            SCOPED_TRACE(Message() << size << " bytes, before request " << n << ' ' << isConditional);
            bucket->put("k", old);
            bucket->put("source", ours);
            const std::string tag = bucket->tag("source");
            open(1);
            changeBefore(n, requests, [&] { bucket->put("source", theirs); });
            std::string copied;
            const auto condition = client->requireVersion("k", bucket->tag("k"));
            const auto failed = failureOf([&] { copied = client->copyObject("source", "k"); });
            bucket->faults = {};
            const auto now = bucket->content("k");
            EXPECT_TRUE(failed ? now == old || now == theirs : now == (copied == tag ? ours : theirs));
            EXPECT_EQ(failed.has_value(), n > 1 && n <= requests && now != ours);
            EXPECT_THAT(failed.value_or("source"), HasSubstr("source")) << "it is the one that has changed";
        }
    }
    EXPECT_THROW(client->copyObject("none", "k"), ResourceNotFoundException);
    bucket->abilities.maxCopySize = bucket->abilities.maxTakeSize = 0;
    EXPECT_THROW(client->copyObject("source", "k"), UnsupportedOperationException);
}

TEST_F(RemoteClientTest, DeletesInBatchesAndReportsWhatIsRefused)
{
    const Fault unknown{How::Before, std::make_exception_ptr(UnsupportedOperationException("unknown"))};
    for (const bool hasBatches : {true, false})
    {
        bucket->takeRequests();
        std::vector<std::string> all;
        for (int i = 0; i < 2'500; ++i)
        {
            bucket->put(all.emplace_back(std::to_string(i)), "x");
        }
        open(1);
        bucket->faults = [&](const StoreRequest& request)
        {
            return request.key == "7"                                    ? std::optional(denied)
                   : request.operation == "deleteObjects" && !hasBatches ? std::optional(unknown)
                                                                         : std::nullopt;
        };
        const auto failures = client->deleteObjects(all);
        ASSERT_EQ(failures.size(), 1U);
        EXPECT_THROW(std::rethrow_exception(failures.at("7")), PermissionDeniedException);
        EXPECT_EQ(keys(*client), std::vector<std::string>{"7"});
        EXPECT_EQ(bucket->count("deleteObjects"), 3U);
        EXPECT_EQ(bucket->count("deleteObject"), hasBatches ? 0U : 2'500U);
    }
    bucket->abilities.maxDeletions = 0;
    unsigned requests = 0;
    changeBefore(1, requests, [&] { isInterrupted = true; });
    EXPECT_THROW(client->deleteObjects({"1", "2"}), TransientException);
    EXPECT_EQ(requests, 1U);
}

TEST_F(RemoteClientTest, BehavesLikeAMapWhileEverythingFailsNowAndThen)
{
    retry.firstDelay = std::chrono::milliseconds(0);
    const auto seed = static_cast<unsigned>(UnitTest::GetInstance()->random_seed());
    SCOPED_TRACE(Message() << "--gtest_random_seed=" << seed);
    std::atomic<bool> isPersistent = false; // whether requests fail that are not retried
    bucket->faults = [&, count = std::make_shared<std::atomic<unsigned>>(seed)](const StoreRequest&)
    {
        std::minstd_rand random(++*count);
        random.discard(3);
        const Fault fault = isPersistent && random() % 8 == 0
                                ? denied
                                : Fault{static_cast<How>(random() % 5), busy.failure, random() % 200};
        return random() % 4 == 0 ? std::optional(fault) : std::nullopt;
    };
    bucket->abilities.maxParts = 40;
    bucket->abilities.maxObjectSize = 40'000;
    std::mt19937 random(seed);
    const auto roll = [&](std::size_t end) { return static_cast<std::size_t>(random() % end); };
    std::map<std::string, std::optional<std::string>> model;
    for (const std::size_t transfers : {1U, 4U, 3U})
    {
        partSize = 32 + 32 * transfers;
        bucket->abilities.takesWholeParts = transfers == 3;
        open(transfers, 2'000);
        for (unsigned round = 0; round < 500; ++round)
        {
            SCOPED_TRACE(round);
            const std::string key = roll(2) == 0 ? "a" : "b";
            const std::string bytes = content(roll(4) == 0 ? roll(3'000) : roll(300), round);
            std::optional<std::string>& known = model[key];
            EXPECT_EQ(client->getObjectInfo(key).exists, known.has_value());
            const std::size_t call = roll(16);
            if (call < 2 || (known && known->size() > 25'000))
            {
                put(*client, key, bytes);
                known = bytes;
            }
            else if (call == 2)
            {
                client->deleteObject(key);
                known = {};
            }
            else if (!known || call < 10)
            {
                const std::string before = known.value_or("");
                const Parts stored = known ? client->getObjectParts(key) : Parts(1);
                known = before + content(1 + roll(roll(4) == 0 ? 12'000 : 600), round);
                known->replace(roll(known->size()), bytes.size(), bytes);
                isPersistent = true;
                rewrite(*client, key, stored, before, *known, random);
                isPersistent = false;
            }
            else
            {
                const std::size_t size = client->getObjectParts(key).back().Offset;
                for (std::size_t at = roll(size + 1), end = std::min(size, at + 3'000); at < end; at += partSize)
                {
                    const std::size_t last = std::min(at + partSize, known->size()) - 1;
                    ASSERT_EQ(get(*client, key, at, last), known->substr(at, last + 1 - at));
                }
                ASSERT_EQ(get(*client, key), *known);
            }
            ASSERT_EQ(bucket->content(key), known);
        }
    }
}

TEST_F(RemoteClientTest, SendsOnTheCallersThreadWithOneTransferOrWithoutThreads)
{
    open(1);
    std::string id = begin();
    std::vector parts{send(id, 0, old)};
    EXPECT_EQ(bucket->count("uploadPart"), 1U);
    open(4, 1'000); // the part needs more than the half of this that it could get
    send(begin(), 0, old);
    EXPECT_EQ(bucket->count("uploadPart"), 2U);

    open(4);
    id = begin();
    pthread_attr_t usual;
    ASSERT_EQ(pthread_getattr_default_np(&usual), 0);
    pthread_attr_t impossible = usual;
    ASSERT_EQ(pthread_attr_setstacksize(&impossible, std::size_t{1} << 60U), 0);
    ASSERT_EQ(pthread_setattr_default_np(&impossible), 0);
    unsigned warnings = 0;
    getLogger().setEnabledSeverities(foundation::log::severity::warning);
    foundation::log::setSink([&](auto, auto, auto) { ++warnings; });
    parts = {send(id, 0, old), send(id, 1, "some")};
    EXPECT_EQ(bucket->count("uploadPart"), 3U);
    complete(id, parts);
    foundation::log::setSink({});
    getLogger().setEnabledSeverities(0);
    ASSERT_EQ(pthread_setattr_default_np(&usual), 0);
    EXPECT_EQ(warnings, 1U) << "a warning for each part would hide all else";
    EXPECT_EQ(bucket->content("k"), old + "some");
    bucket->hold("uploadPart");
    send(begin(), 0, old);
    awaitParts(4); // threads can be started again
}

TEST_F(RemoteClientTest, SendsSeveralPartsOfALongFileAsOne)
{
    bucket->abilities.maxParts = 10; // of 1, 1, 2, 4, 8 parts of the file, and so on
    bucket->abilities.maxObjectSize = 100'000;
    open(1);
    const std::string id = begin();
    Parts parts(10);
    std::string expected(1'000, '-');
    const std::pair<unsigned, unsigned> calls[] = {
        {0, 1}, {2, 1}, {1, 2}, {3, 3}, {4, 3}, {6, 3}, {5, 3}, {7, 4}, {8, 4}, {5, 4}, {9, 4}};
    for (const auto& [index, sent] : calls)
    {
        expected.replace(index * 100, 100, content(100, index + sent));
        parts[index] = send(id, index, content(100, index + sent));
        EXPECT_EQ(bucket->count("uploadPart"), sent) << "part " << index;
    }
    complete(id, parts);
    EXPECT_EQ(bucket->count("uploadPart"), 10U) << "the group with part 5 was sent more than once again";
    EXPECT_EQ(bucket->content("k"), expected);
    const std::string next = begin();
    EXPECT_THROW(uploadPart(*client, "k", next, 1, old, 97'001), UnknownErrorException);
    bucket->abilities.equalParts = true;
    EXPECT_THROW(send(next, 10, old), UnknownErrorException);
}

TEST_F(RemoteClientTest, SendsNoMoreOfWhatIsReplacedOrAborted)
{
    open(2);
    bucket->hold("uploadPart");
    const std::string id = begin();
    send(id, 0, content(200, 1));
    const PartInfo second = send(id, 1, content(200, 2));
    awaitParts(2);
    const std::string other = begin();
    send(other, 0, old);
    const PartInfo queued = send(other, 0, old + "new");
    EXPECT_THROW(complete(id, {{0, 0, old.size(), "other"}}), UnknownErrorException) << "this need not wait";
    auto next = std::async(std::launch::async, [&] { return send(id, 2, content(200, 3)); });
    auto replacing = std::async(std::launch::async, [&] { return send(id, 0, content(200, 4)); });
    EXPECT_EQ(next.wait_for(20ms), std::future_status::timeout) << "two parts of the file are on the way";
    EXPECT_EQ(replacing.wait_for(20ms), std::future_status::timeout);
    bucket->hold("");
    complete(id, {replacing.get(), second, next.get()});
    EXPECT_EQ(bucket->content("k"), content(200, 4) + content(200, 2) + content(200, 3));
    complete(other, {queued});
    EXPECT_EQ(bucket->content("k"), old + "new");
    EXPECT_EQ(client->callSnapshot()[Operation::UploadPart].bytes, 3 * 200 + queued.Size);
}

TEST_F(RemoteClientTest, AnAbortSendsNothingElseAndWaitsForNoOtherFile)
{
    std::promise<void> end;
    bucket->faults = [ended = end.get_future().share()](const StoreRequest& request)
    {
        request.operation == "uploadPart" && request.key == "b" ? ended.wait() : void();
        return std::optional<Fault>();
    };
    open(2);
    const std::string other = client->createMultipartUpload("b", "");
    uploadPart(*client, "b", other, 0, old);
    awaitParts(1);
    bucket->hold("uploadPart");
    const std::string id = begin();
    send(id, 0, old);
    awaitParts(2);
    uploadPart(*client, "b", other, 1, old);
    send(id, 1, old);
    const auto next = std::async(std::launch::async, [&] { return failureOf([&] { send(id, 2, old); }); });
    EXPECT_EQ(next.wait_for(20ms), std::future_status::timeout);
    auto aborting = std::async(std::launch::async, [&] { client->abortMultipartUpload("k", id); });
    EXPECT_EQ(aborting.wait_for(20ms), std::future_status::timeout) << "the store may still make it a part";
    bucket->hold("");
    aborting.get();
    end.set_value();
    next.wait();
    client.reset();
    EXPECT_EQ(std::ranges::count(bucket->takeRequests(), "k", &StoreRequest::key), 3) << "begin, one part, abort";
}

/// Content that calls a function when it is read.
struct CallingContent : std::streambuf
{
    int_type underflow() override
    {
        call();
        setg(&byte, &byte, &byte + 1);
        return byte;
    }

    char byte = 'x';
    std::function<void()> call;
};

TEST_F(RemoteClientTest, TakesNoPartThatMeetsAnAbort)
{
    open(1);
    const std::string id = begin();
    send(id, 0, old);
    fail("abortUpload", denied);
    CallingContent buffer;
    buffer.call = [&] { EXPECT_TRUE(failureOf([&] { client->abortMultipartUpload("k", id); })); };
    std::istream dropped(&buffer);
    EXPECT_THROW(client->uploadPart("k", id, {1, old.size(), 1, ""}, dropped), UnknownErrorException);
    endFaults();
    const std::string unopened = begin();
    buffer.call = [&] { failureOf([&] { client->abortMultipartUpload("k", unopened); }); };
    std::istream late(&buffer);
    failureOf([&] { client->uploadPart("k", unopened, {0, 0, 100, ""}, late); });
    EXPECT_EQ(bucket->count("createUpload"), 1U) << "nobody would abort it";
}

TEST_F(RemoteClientTest, UsesNoNumberTwiceAtATime)
{
    bucket->abilities.maxParts = 10; // of 1, 1, 2, 4, 8 parts of the file, and so on
    bucket->abilities.maxObjectSize = 100'000;
    for (const bool areEqual : {false, true}) // the store turns out to want that; else part 3 is not listed
    {
        open(2);
        bucket->takeRequests();
        const std::string id = begin();
        Parts parts{send(id, 0, content(100, 0)), send(id, 1, content(100, 1)), send(id, 2, content(100, 2))};
        awaitParts(2);
        bucket->hold("uploadPart");
        parts.push_back(send(id, 3, content(100, 3)));
        awaitParts(3);
        areEqual ? void(bucket->abilities.equalParts = true) : parts.pop_back();
        auto completing = std::async(std::launch::async, [&] { complete(id, parts); });
        EXPECT_EQ(completing.wait_for(20ms), std::future_status::timeout);
        EXPECT_EQ(bucket->count("uploadPart"), 3U) << "its number is still written";
        bucket->hold("");
        completing.get();
        EXPECT_EQ(bucket->content("k")->substr(200), content(100, 2) + (areEqual ? content(100, 3) : ""));
    }
}

TEST_F(RemoteClientTest, ReportsAFailedPartOnceAndSendsItAgain)
{
    bucket->put("k", old);
    open(4);
    const Parts stored = client->getObjectParts("k");
    const std::string id = begin(stored[0].Tag);
    PartInfo copied{1, 1'000, 200, stored[0].Tag};
    const auto reports = [&] {
        return failureOf([&] { copied.Tag = client->copyPart("k", id, {1, 1'000, 200, stored[0].Tag}); });
    };
    const auto awaitReport = [&]
    {
        while (!reports())
        {
            std::this_thread::yield(); // the part is in flight
        }
        EXPECT_FALSE(reports());
    };
    fail("uploadPart", denied);
    const PartInfo sent = send(id, 0, content(300, 2));
    awaitReport();
    const PartInfo last = uploadPart(*client, "k", id, 2, content(300, 3), 500);
    awaitReport();
    EXPECT_THROW(complete(id, {sent, copied, last}), PermissionDeniedException);
    EXPECT_EQ(bucket->content("k"), old);
    EXPECT_FALSE(reports()) << "the completion has reported its own failures";
    endFaults();
    complete(id, {sent, copied, last});
    EXPECT_EQ(bucket->content("k"), content(300, 2) + old.substr(1'000, 200) + content(300, 3));
}

TEST_F(RemoteClientTest, WaitsOnceForAnUploadWhoseStoreWentAway)
{
    retry = {std::chrono::seconds(1), std::chrono::seconds(1), std::chrono::minutes(1)};
    open(1);
    const std::string id = begin();
    const std::string other = begin();
    const PartInfo part = send(id, 0, old);
    send(other, 0, old);
    fail("", busy);
    const auto abort = [&](const std::string& upload) { client->abortMultipartUpload("k", upload); };
    const struct
    {
        std::function<void()> call;
        std::chrono::seconds waited;
        std::size_t attempts;
    } rows[] = {{[&] { complete(id, {part}); }, 60s, 61}, {[&] { send(id, 1, old); }, 0s, 0},
        {[&] { complete(id, {part}); }, 0s, 0}, {[&] { abort(id); }, 0s, 1}, {[&] { abort(id); }, 0s, 0},
        {[&] { complete(other, {}); }, 0s, 0}, {[&] { abort(other); }, 60s, 61}};
    for (const auto& row : rows)
    {
        const auto begun = clock.now();
        bucket->takeRequests();
        EXPECT_THROW(row.call(), UnknownErrorException);
        EXPECT_EQ(clock.now() - begun, row.waited);
        const std::size_t lookups = bucket->count("isOpen");
        EXPECT_EQ(bucket->takeRequests().size() - lookups, row.attempts);
    }
    client.reset();
    EXPECT_EQ(bucket->takeRequests().size(), 0U) << "the store is still away";
    EXPECT_EQ(bucket->openUploads(), 2U);
    endFaults();
    open(1);
    for (const PendingUpload& upload : client->pendingUploads())
    {
        client->abortMultipartUpload("k", upload.uploadId);
    }
}

TEST_F(RemoteClientTest, CopiesNothingTwiceUnlessTheObjectWasAnotherVersion)
{
    open(1);
    for (const bool isReplaced : {false, true})
    {
        bucket->put("k", old);
        PartInfo part{0, 0, old.size(), client->getObjectParts("k")[0].Tag};
        const std::string id = begin(part.Tag);
        part.Tag = client->copyPart("k", id, part);
        isReplaced ? bucket->put("k", "theirs") : fail("completeUpload", busy);
        EXPECT_THROW(complete(id, {part}), UnknownErrorException);
        isReplaced ? bucket->put("k", old) : endFaults();
        clock.pass(std::chrono::hours(1));
        complete(id, {part});
        EXPECT_EQ(bucket->count("takePart"), isReplaced ? 3U + 1 : 3U); // three copies of at most 1,000 bytes
        bucket->takeRequests();
    }
}

// The first or second completion fails, and the object is another one. While the upload is open it took no effect.
TEST_F(RemoteClientTest, ALostRaceHasAKnownOutcomeWhileTheUploadIsOpen)
{
    const Fault refused{How::Before, std::make_exception_ptr(PreconditionFailed("Refused"))};
    for (const unsigned failing : {0U, 1U, 2U})
    {
        bucket->takeRequests();
        open(1);
        const std::string id = begin();
        const PartInfo part = send(id, 0, old);
        const auto condition = client->requireVersion("k", bucket->tag("k"));
        bucket->faults = [&](const StoreRequest& request) -> std::optional<Fault>
        {
            if (request.operation != "completeUpload")
            {
                const bool isSecond = request.operation == "isOpen" && bucket->count("isOpen") == 2;
                return isSecond ? std::optional(busy) : std::nullopt;
            }
            if (bucket->count("completeUpload") < failing)
            {
                return busy;
            }
            bucket->put("k", "theirs" + id);
            if (failing > 0)
            {
                const auto store = bucket->connect();
                store->abortUpload("k", store->listUploads("").uploads.at(0).uploadId);
            }
            return failing == 2 ? refused : busy;
        };
        EXPECT_THAT([&] { complete(id, {part}); }, Throws<CloudException>(Property(&CloudException::what,
                                                       HasSubstr(failing > 0 ? "Outcome unknown" : "exists"))));
        bucket->faults = {};
        bucket->put("k", "x");
    }
}

TEST_F(RemoteClientTest, ReportsWhyACompletionFailedIfTheObjectCannotBeRead)
{
    open(1);
    const Fault refused{How::Before, std::make_exception_ptr(UnknownErrorException("Refused"))};
    bucket->faults = [&](const StoreRequest& request)
    {
        return request.operation == "completeUpload" ? std::optional(refused)
               : request.operation == "findObject"   ? std::optional(denied)
                                                     : std::nullopt;
    };
    const std::string id = begin();
    EXPECT_THROW(complete(id, {send(id, 0, old)}), UnknownErrorException);
    client->abortMultipartUpload("k", id);
}

TEST_F(RemoteClientTest, MakesEqualPartsWhenTheStoreRefusesOthers)
{
    bucket->refusesUnequalParts = true;
    bucket->put("k", old);
    open(4);
    const std::vector<std::string> unequal{content(200, 1), content(300, 2), "end"};
    EXPECT_TRUE(failureOf([&] { putParts(*client, "k", unequal); }))
        << "the bytes that were sent are not here any more";
    EXPECT_EQ(bucket->content("k"), old);
    bucket->abilities.equalParts = false;
    patch(*client, "k", 1'000, content(90, 3));
    bucket->takeRequests();
    patch(*client, "k", 2'000, content(90, 4));
    EXPECT_EQ(bucket->count("completeUpload"), 1U) << "it is remembered";
    EXPECT_EQ(bucket->count("takePart"), 27U); // 30 parts, of which 3 have changed bytes
    EXPECT_EQ(
        bucket->content("k"), std::string(old).replace(1'000, 90, content(90, 3)).replace(2'000, 90, content(90, 4)));
}

TEST_F(RemoteClientTest, ReadersSeeOneVersionThatWasThere)
{
    open(3, 800); // memory for two parts, or for one and some ranges
    std::mutex writing;
    std::atomic<unsigned> begun = 0;
    std::atomic<unsigned> done = 0;
    std::atomic<unsigned> seen = 0;
    std::atomic<bool> losesResponse = false;
    const Fault lost{How::After, std::make_exception_ptr(UnknownErrorException("Lost"))};
    bucket->faults = [&](const StoreRequest& request)
    { return losesResponse && request.operation == "putObject" ? std::optional(lost) : std::nullopt; };
    bucket->put("k", content(900, 0));
    const auto replace = [&](bool isWhole)
    {
        const std::lock_guard lock(writing);
        losesResponse = isWhole && begun % 2 == 0;
        const std::string bytes = content(900, ++begun);
        isWhole ? void(failureOf([&] { put(*client, "k", bytes); }))
                : putParts(*client, "k", {bytes.substr(0, 200), bytes.substr(200, 300), bytes.substr(500)});
        done.store(begun);
    };
    const auto readAndWrite = [&](unsigned seed)
    {
        std::mt19937 random(seed);
        for (int round = 0; round < 300; ++round)
            try
            {
                random() % 8 == 0 ? replace(random() % 2 == 0) : void(client->getObjectParts("k"));
                const std::size_t size = 20 * (1 + random() % 3);
                for (std::size_t at = random() % 2 * 20 * (random() % 45); at + size <= 900 && random() % 8 != 0;
                     at += size)
                {
                    unsigned number = done;
                    const std::string bytes = get(*client, "k", at, at + size - 1);
                    const unsigned last = begun;
                    while (bytes != content(900, number).substr(at, size))
                    {
                        ASSERT_LT(number++, last) << "seed " << seed << ", round " << round << ", offset " << at;
                    }
                    ++seen;
                }
            }
            catch (const UnknownErrorException&) // a write with an unknown outcome has replaced the opened version
            {
            }
    };
    const auto seed = static_cast<unsigned>(UnitTest::GetInstance()->random_seed());
    auto other = std::async(std::launch::async, readAndWrite, seed);
    readAndWrite(seed + 1);
    other.get();
    EXPECT_GT(seen, 300U);
    client.reset(); // prefetches look at the variables above
}

// Something happens to each of the eight ranges that follow the first bytes.
TEST_F(RemoteClientTest, DownloadsOneVersionWhateverHappens)
{
    const std::string bytes = content(15'000, 1);
    const Fault broken{.how = How::Break, .bytes = 100};
    std::atomic<bool> isFull = false;
    const struct
    {
        std::optional<Fault> fault;
        std::function<void()> happens = [] {};
        const char* failure = nullptr;
    } rows[] = {{busy}, {broken}, {Fault{.how = How::Corrupt}}, {denied, [] {}, "Denied"},
        {broken, [&] { isInterrupted = true; }, "interrupted"},
        {broken, [&] { bucket->put("k", content(9, 2)); }, "changed or removed the object"},
        {std::nullopt, [&] { bucket->put("k", std::nullopt); }, "no object k"},
        {std::nullopt, [&] { isFull = true; }, "full"}};
    for (std::size_t i = 0; i < std::size(rows) * 32; ++i)
    {
        const auto& row = rows[i / 32];
        const bool isOrdered = i % 32 >= 16;
        SCOPED_TRACE(::testing::Message() << "row " << i / 32 << ", case " << i % 32);
        open(i % 2 == 0 ? 1 : 3);
        isInterrupted = isFull = false;
        bucket->put("k", bytes);
        bucket->faults = [&, number = std::make_shared<std::atomic<unsigned>>()](const StoreRequest&)
        { return ++*number == i % 16 / 2 + 2 ? (row.happens(), row.fault) : std::nullopt; };
        std::string target(bytes.size(), '.');
        const auto begin = [&](std::uint64_t size) { EXPECT_EQ(size, bytes.size()); };
        std::uint64_t done = 0;
        const auto write = [&](std::uint64_t offset, std::string_view piece)
        {
            isFull ? throw UnknownErrorException("full") : piece.copy(&target[offset], piece.size());
            EXPECT_TRUE(!isOrdered || std::exchange(done, offset + piece.size()) == offset);
        };
        const auto failure = failureOf([&] { client->downloadObject("k", {begin, write, isOrdered}); });
        EXPECT_THAT(failure.value_or(target), HasSubstr(row.failure != nullptr ? row.failure : bytes));
    }
}

// All sizes around those of parts. The source fails at each of its calls.
TEST_F(RemoteClientTest, StoresAWholeSourceOrNothing)
{
    bucket->abilities.maxParts = 20;
    const struct
    {
        std::size_t transfers;
        std::uint64_t memory;
        bool hasEqualParts, isStream;
    } rows[] = {{1, 1'000, false, false}, {3, 1'000, true, false}, {1, 1'000, false, true}, {3, 1'000, false, true}};
    for (const std::size_t size : std::vector<std::size_t>{0, 1, 199, 200, 201, 399, 1'999, 2'000, 2'001, 5'003})
    {
        for (const auto& [transfers, memory, hasEqualParts, isStream] : rows)
        {
            SCOPED_TRACE(Message() << size << " bytes, " << transfers << " transfers, equal parts " << hasEqualParts
                                   << ", stream " << isStream);
            bucket->abilities.equalParts = hasEqualParts;
            open(transfers, memory);
            const std::string bytes = content(size, 1);
            std::atomic<unsigned> calls = 0;
            const auto count = [&] { ++calls; };
            EXPECT_EQ(store(bytes, count, isStream), size);
            EXPECT_EQ(bucket->content("k"), bytes);
            for (unsigned failing = calls; failing > 0; --failing)
            {
                bucket->put("k", old);
                calls = 0;
                const auto gone = [&] { ++calls == failing ? throw UnknownErrorException("gone") : void(); };
                EXPECT_THAT(
                    failureOf([&, isStream = isStream] { store(bytes, gone, isStream); }), Optional(HasSubstr("gone")));
                EXPECT_EQ(bucket->content("k"), old);
                EXPECT_EQ(bucket->openUploads(), 0U);
            }
        }
    }
}

// A range or part that waits for its next attempt does not hold up the failure of the one behind it.
TEST_F(RemoteClientTest, ATransferEndsAtItsFirstFailure)
{
    waits = {};
    open(3);
    bucket->put("k", content(15'000, 1));
    const auto load = [&] { client->downloadObject("k", {[](auto) {}, [](auto, auto) {}}); };
    const Fault busyForLong{How::Before, std::make_exception_ptr(TransientException("Busy", "", 100s))};
    const auto begin = std::chrono::steady_clock::now();
    std::atomic<bool> isDenied = false;
    const auto change = [&] { isDenied ? throw UnknownErrorException("changed") : void(); }; // is not the reason
    for (const std::function<void()>& call : {std::function<void()>(load), {[&] { store(old, change); }}})
    {
        isDenied = false;
        bucket->faults = [&, number = std::make_shared<std::atomic<unsigned>>()](const StoreRequest&)
        {
            const std::array<std::optional<Fault>, 4> faults{{{}, busyForLong, denied, {}}};
            const unsigned index = std::min(++*number - 1, 3U);
            isDenied = isDenied || index == 2;
            return faults.at(index);
        };
        EXPECT_THAT(failureOf(call), Optional(HasSubstr("Denied")));
    }
    EXPECT_LT(std::chrono::steady_clock::now() - begin, 50s);
}

TEST_F(RemoteClientTest, ASourceThatHasChangedIsWhyTheStoreRefusesItsParts)
{
    open(3);
    fail("uploadPart", {});
    const auto fill = [](auto, char* target, std::size_t size) { std::fill_n(target, size, 'x'); };
    const auto check = [] { throw UnknownErrorException("changed"); };
    const auto upload = [&] { client->uploadObject("k", {10'000, fill, check, [](auto) {}}); };
    EXPECT_THAT(failureOf(upload), Optional(HasSubstr("changed")));
}

TEST_F(RemoteClientTest, AChangedFileKeepsItsMetadataAndANewOneGetsItsOwn)
{
    const auto patched = [&] { patch(*client, "k", 10, "new"); };
    const auto stored = [&] { put(*client, "k", "new"); };
    const auto uploaded = [&](const std::string& tag)
    {
        const std::string id = begin(tag);
        complete(id, {send(id, 0, content(100, 3))});
    };
    const auto created = [&] { uploaded(""); };
    const auto whole = [&] { store(content(500, 3)); };
    const auto removed = [&] { client->deleteObject("k"); };
    const auto copied = [&] // in ranges, and a small one in one request
    {
        client->copyObject("k", "copy");
        removed();
        client->copyObject("copy", "k");
    };
    const auto unpinned = [&] { uploaded(bucket->tag("k")); };
    const auto removedByOther = [&]
    {
        auto ours = std::exchange(client, nullptr);
        open(1);
        removed();
        client = std::move(ours);
    };
    const auto storedAsNew = [&]
    {
        const auto condition = client->requireVersion("k", "");
        stored();
    };
    const std::pair<bool, std::vector<std::function<void()>>> rows[] = {{true, {patched, patched, stored, stored}},
        {true, {patched, created, stored}}, {true, {unpinned, patched}}, {true, {patched, whole, patched}},
        {false, {whole, patched}}, {true, {copied, stored, copied, stored}}, {false, {stored, patched}},
        {false, {created, stored}}, {false, {patched, removed, stored}}, {false, {patched, removed, created, patched}},
        {false, {patched, removedByOther, storedAsNew}}};
    const ObjectMetadata kept{{"type", "red"}, {"", "x"}};
    const auto store = bucket->connect();
    for (const How how : {How::Before, How::After})
    {
        for (const auto& row : rows)
        {
            const auto& [isKept, calls] = row;
            SCOPED_TRACE(Message() << "row " << &row - rows << ", fault " << static_cast<int>(how));
            open(1);
            SpanBody body({old});
            store->putObject("k", body, {}, {kept, "k"});
            fail("", {how}, 2, 2);
            std::ranges::for_each(calls, [](const auto& call) { call(); });
            bucket->faults = {};
            EXPECT_EQ(*store->findObject("k")->version.metadata, isKept ? kept : ofNewFile("k"));
        }
    }
}

TEST(ContentTypeTest, IsThatOfTheLongestSuffixOfTheName)
{
    std::istringstream globs(
        "# 1:x:*.a\n80:first:*.a\n50:second:*.a\nno line\n9:tar:*.tar.gz\n9:gz:*.gz\n9:C:*.C:cs\n9:c:*.c\n"
        "9:make:makefile\n9:wild:*.so.[0-9]*\n9:tail:*~\n");
    const ContentTypes types(globs);
    std::string found;
    for (const char* const name :
        {"x.a", "X.Y.A", "x.tar.gz", "x.gz", "x.C", "x.c", "Makefile", "x.so.1", "x~", "a", "x.", ""})
    {
        found += types.of(name) + ' ';
    }
    EXPECT_EQ(found, "first first tar gz C c make      ");
    EXPECT_EQ(contentTypeOf("folder.css/index.html"), "text/html") << "with or without the machine's database";
}

TEST_F(RemoteClientTest, TakesFewRequests)
{
    bucket->abilities.maxTakeSize = 100U << 10U;
    const std::string large = content(200U << 10U, 1);
    const struct
    {
        std::size_t offset;
        std::size_t requests; // to open, to read, to begin, to read and send at least what the store takes, to complete
        std::size_t copies;
    } rows[] = {{0, 6, 2}, {60U << 10U, 6, 3}, {100U << 10U, 6, 2}, {120U << 10U, 6, 3}, {(200U << 10U) - 20, 5, 2}};
    for (const bool isConditional : {true, false})
    {
        setConditions(isConditional);
        const std::size_t check = isConditional ? 0 : 1;
        for (const auto& row : rows)
        {
            SCOPED_TRACE(Message() << "patch at " << row.offset << ", conditional " << isConditional);
            bucket->put("k", large);
            open(1);
            bucket->takeRequests();
            patch(*client, "k", row.offset, content(20, 2));
            EXPECT_EQ(bucket->count("takePart"), row.copies);
            EXPECT_EQ(bucket->takeRequests().size(), row.requests + row.copies + check);
        }
        const auto condition = client->requireVersion("k", bucket->tag("k"));
        fail("putObject", busy, 1, 1);
        put(*client, "k", "new");
        std::ostringstream calls;
        calls << client->callSnapshot();
        EXPECT_THAT(calls.str(), HasSubstr("putObject 2 (3 B)"));
        bucket->faults = {};
    }
}

} // namespace

} // namespace storage::clients
