#include "Parallel.hpp"
#include "PartCutting.hpp"
#include "TestCalls.hpp"
#include "UploadPlan.hpp"

#include <storage/clients/common/TransientException.hpp>
#include <storage/clients/decorators/RetryingClient.hpp>
#include <storage/clients/http/Hashing.hpp>
#include <storage/clients/s3/S3Client.hpp>

#include <fmt/format.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstdio>
#include <latch>
#include <limits>
#include <random>

#include <pthread.h>

// Multipart uploads: their plan, how many requests they take, and what becomes of completions that fail.

namespace storage::clients::s3
{

namespace
{

using namespace cloudprovider;
using How = PlannedPart::How;
using namespace clients::test;
using test::isCompletion;
using test::PreparedUpload;
using http = boost::beast::http::verb;

constexpr std::uint64_t gibi = 1 << 30;
constexpr std::uint64_t mebi = 1 << 20;

/// Where bytes come from, in order: adds a range, joined with the one before where it continues that.
void add(std::vector<PlannedBytes>& origin, const PlannedBytes& bytes)
{
    PlannedBytes* const last = origin.empty() ? nullptr : &origin.back();
    if (last != nullptr && last->place == bytes.place && last->index == bytes.index &&
        last->offset + last->size == bytes.offset)
    {
        last->size += bytes.size;
    }
    else if (bytes.size > 0)
    {
        origin.push_back(bytes);
    }
}

/// Expect that the plan makes the file's bytes within the limits.
/// @param forced  bytes; a part that is sent has fewer, however few numbers there are for it
/// @return bytes that are read from the object to be sent
std::uint64_t expectRight(
    const UploadPlan& plan, const std::vector<FilePart>& file, const UploadLimits& limits, std::uint64_t forced)
{
    std::vector<PlannedBytes> expected;
    for (const FilePart& part : file)
    {
        const bool isObject = part.place == PartPlace::Object;
        add(expected, {part.place, isObject ? 0 : part.index, isObject ? part.offset : 0, part.size});
    }
    std::vector<PlannedBytes> planned;
    bool copies = false;
    std::uint64_t size = 0;
    std::uint64_t read = 0;
    std::size_t number = 0;
    for (const PlannedPart& part : plan.parts)
    {
        const bool isLast = &part == &plan.parts.back();
        std::uint64_t sum = 0;
        for (const PlannedBytes& bytes : part.bytes)
        {
            add(planned, bytes);
            sum += bytes.size;
            read += part.how == How::Send && bytes.place == PartPlace::Object ? bytes.size : 0;
        }
        EXPECT_EQ(sum, part.how == How::Keep ? 0 : part.size);
        EXPECT_TRUE(part.size >= limits.minPartSize || isLast) << "part of " << part.size << " bytes";
        EXPECT_GT(part.number, std::exchange(number, part.number));
        switch (part.how)
        {
        case How::Keep:
            add(planned, {PartPlace::Uploaded, part.number - 1, 0, part.size});
            break;
        case How::Copy:
            copies = true;
            EXPECT_LE(part.size, limits.maxCopySize);
            EXPECT_TRUE(part.bytes.size() == 1 && part.bytes[0].place == PartPlace::Object);
            break;
        case How::Send:
            EXPECT_TRUE(limits.equalParts || part.size < std::max(2 * limits.minPartSize, forced)) << "too much memory";
            if (isLast && limits.maxCopySize > 0 && !limits.equalParts && part.bytes.size() > 1)
            {
                const PlannedBytes& tail = part.bytes.back();
                EXPECT_TRUE(tail.place != PartPlace::Object || sum < limits.minPartSize + tail.size) << "not copied";
            }
        }
        EXPECT_TRUE(!limits.equalParts || isLast || part.size == plan.parts[0].size);
        size += part.size;
    }
    EXPECT_EQ(planned, expected);
    EXPECT_LE(number, limits.maxParts);
    EXPECT_EQ(plan.size, size);
    EXPECT_LE(plan.size, limits.maxObjectSize);
    EXPECT_EQ(plan.needsVersionCheck, copies && !limits.pinnedCopies);
    return read;
}

TEST(UploadPlanTest, KeepsToEveryLimitAndLosesNoByte)
{
    std::mt19937 random(1);
    const auto roll = [&](std::uint64_t max) { return std::uniform_int_distribution<std::uint64_t>(0, max)(random); };
    for (int round = 0; round < 20'000 && !testing::Test::HasFailure(); ++round)
    {
        UploadLimits limits{.minPartSize = 1 + roll(20), .maxParts = 1 + roll(40), .maxObjectSize = 1 + roll(1'000)};
        limits.maxCopySize = roll(4) == 0 ? 0 : 2 * limits.minPartSize + roll(100);
        limits.equalParts = roll(5) == 0;
        limits.pinnedCopies = roll(1) == 0;
        const bool isLegal = roll(1) == 0; // as parts that the store itself has
        const std::uint64_t min = isLegal ? limits.minPartSize : 1;
        const std::uint64_t more = isLegal && limits.maxCopySize > 0 ? limits.maxCopySize - min : 60;
        const std::uint64_t common = min + roll(std::min<std::uint64_t>(more, 30));
        std::vector<FilePart> file;
        std::uint64_t objectEnd = 0;
        std::uint64_t largest = 0;
        std::uint64_t total = 0;
        const std::size_t count = 1 + roll(isLegal ? std::min<std::uint64_t>(limits.maxParts - 1, 30) : 30);
        for (std::size_t i = 0; i < count; ++i)
        {
            const auto place = static_cast<PartPlace>(roll(9) < 6 ? 2 : roll(1));
            const bool isUncommon = roll(3) == 0 && !limits.equalParts;
            const std::uint64_t size = i + 1 == count ? roll(common) : isUncommon ? min + roll(more) : common;
            file.push_back({i, place, size, objectEnd});
            objectEnd += size + (roll(9) == 0 ? 1 : 0); // ranges need not touch
            largest = std::max(largest, size);
            total += size;
        }
        SCOPED_TRACE(testing::Message() << "round " << round);
        UploadPlan plan;
        const std::string refusal = test::failureOf([&] { plan = planUpload(file, limits); });
        if (refusal.empty())
        {
            expectRight(plan, file, limits, isLegal ? 2 * largest : std::numeric_limits<std::uint64_t>::max());
        }
        EXPECT_TRUE(refusal.empty() || !isLegal || total > limits.maxObjectSize) << refusal;
    }
}

/// A stored object as the provider opens it, the parts from `first` to `last` changed, and bytes appended.
std::vector<FilePart> patched(
    std::uint64_t objectSize, std::uint64_t partSize, std::size_t first, std::size_t last, std::uint64_t appended)
{
    std::vector<FilePart> file;
    const auto add = [&](PartPlace place, std::uint64_t size, std::uint64_t offset)
    {
        const bool isSent = place == PartPlace::Spooled && size >= minPartSize;
        file.push_back({file.size(), isSent ? PartPlace::Uploaded : place, size, offset});
    };
    auto parts = cutIntoParts(objectSize, "tag", partSize);
    // The last part grows to the size of new ones first.
    const std::uint64_t room = minPartSize - std::min(parts.back().Size, minPartSize);
    const std::uint64_t grown = std::min(appended, room);
    for (const auto& part : parts)
    {
        const bool isLast = &part == &parts.back();
        const bool isChanged = (part.Index >= first && part.Index <= last) || (isLast && grown > 0);
        add(isChanged ? PartPlace::Spooled : PartPlace::Object, part.Size + (isLast ? grown : 0), part.Offset);
    }
    for (std::uint64_t left = appended - grown; left > 0; left -= std::min<std::uint64_t>(left, minPartSize))
    {
        add(PartPlace::Spooled, std::min<std::uint64_t>(left, minPartSize), 0);
    }
    return file;
}

TEST(UploadPlanTest, PlansEveryPatchOfAnObjectAsItIsCut)
{
    std::mt19937_64 random(2);
    const auto roll = [&](std::uint64_t max) { return std::uniform_int_distribution<std::uint64_t>(0, max)(random); };
    for (int round = 0; round < 500 && !testing::Test::HasFailure(); ++round)
    {
        const std::uint64_t cut = std::array{mebi / 16, mebi / 4, mebi, 5 * mebi, 7 * mebi}.at(roll(4));
        const std::uint64_t size = std::array{30 * mebi, 6 * mebi, 600 * mebi, 40 * gibi, 4000 * gibi}.at(roll(4));
        const std::uint64_t objectSize = 1 + roll(size - 1);
        const std::size_t first = roll(cutIntoParts(objectSize, "", cut).size());
        const auto file =
            patched(objectSize, cut, first, first + (roll(1) == 0 ? 0 : roll(20)), roll(3) * roll(9 * mebi));
        for (const std::uint64_t copies : {maxCopySize, std::uint64_t()})
        {
            const UploadLimits limits{.maxCopySize = copies};
            SCOPED_TRACE(testing::Message() << "changed from part " << first << ", " << objectSize
                                            << " bytes in parts of " << cut << ", round " << round);
            const auto read = expectRight(planUpload(file, limits), file, limits, file.front().size / 4 * 5);
            EXPECT_LE(read, copies > 0 ? 4 * minPartSize : objectSize) << "sent instead of copied";
        }
    }
    const UploadPlan append = planUpload(patched(256 * mebi, mebi, 999, 999, 1024), {});
    EXPECT_TRUE(append.parts.size() == 2 && append.parts[1].size == 1024) << "more is sent than what was appended";
}

TEST(UploadPlanTest, CutsObjectsSoThatTheyCanGrow)
{
    for (const std::uint64_t cut : {mebi / 16, mebi / 4, mebi, 5 * mebi})
    {
        for (const std::uint64_t size : {std::uint64_t(0), std::uint64_t(1), cut, 5 * mebi, 5 * mebi + 1, 6 * mebi,
                 5000 * cut, 5000 * cut + 1, 25 * gibi, 5000 * gibi, maxObjectSize})
        {
            const auto parts = cutIntoParts(size, "tag", cut);
            const bool hasEmptyEnd = parts.size() > 1 && parts[0].Size < minPartSize;
            EXPECT_EQ(parts.back().Offset + parts.back().Size, size);
            EXPECT_EQ(parts.back().Size == 0, hasEmptyEnd || size == 0) << size << " bytes, cut into " << cut;
            EXPECT_LE(parts.size(), maxParts / 2 + 1);
            const std::uint64_t beforeLast = parts[parts.size() - (hasEmptyEnd ? 2 : 1)].Offset;
            EXPECT_TRUE(beforeLast == 0 || beforeLast >= minPartSize) << size << " bytes, cut into " << cut;
        }
    }
}

const std::string bytes = "new";
const std::string partTag = toHex(md5(bytes));
const std::string oldTag = "old";
const std::string theirTag = "theirs";
const std::string newTag = toHex(md5(md5(bytes))) + "-1";

bool isCopy(const Request& request)
{
    return request.count("x-amz-copy-source") > 0;
}

/// A store of one object, which claims to have as many bytes as it is told. Conditions on copies are ignored.
struct FakeStore
{
    const std::uint64_t size;
    std::atomic<const std::string*> tag = &oldTag;
    /// Responds to some requests in the store's place. Set it before the first request.
    std::function<std::optional<Reply>(const Request&)> handler = [](const Request&) { return std::nullopt; };
    LoopbackServer server{[this](const Request& request) { return handler(request).value_or(respond(request)); }};
    S3Settings settings = test::settingsFor(server);

    Reply respond(const Request& request) const
    {
        const std::string etag = '"' + *tag + '"';
        switch (request.method())
        {
        case http::head:
            return {.fields = {{"ETag", etag}, {"Last-Modified", "Sat, 01 Jan 2022 00:00:00 GMT"},
                        {"Content-Length", std::to_string(size)}}};
        case http::get:
            return request["If-Match"].empty() || request["If-Match"] == etag ? read(request, etag) : Reply{412};
        case http::put:
            return {.fields = {{"ETag", '"' + partTag + '"'}},
                .body = isCopy(request) ? "<CopyPartResult><ETag>" + partTag + "</ETag></CopyPartResult>" : ""};
        default:
            return {
                .body = isCompletion(request)
                            ? "<CompleteMultipartUploadResult><ETag>new</ETag></CompleteMultipartUploadResult>"
                            : "<InitiateMultipartUploadResult><UploadId>1</UploadId></InitiateMultipartUploadResult>"};
        }
    }

    auto copies() const
    {
        const auto requests = server.requests();
        return std::count_if(requests.begin(), requests.end(), isCopy);
    }

    Reply read(const Request& request, const std::string& etag) const
    {
        unsigned long first = 0;
        unsigned long last = 0;
        std::sscanf(std::string(request["Range"]).c_str(), "bytes=%lu-%lu", &first, &last);
        last = std::min(last, size - 1);
        return {.status = 206,
            .fields = {{"ETag", etag}, {"Content-Range", fmt::format("bytes {}-{}/{}", first, last, size)}},
            .body = std::string(last - first + 1, 'x')};
    }
};

/// Prepare to make a new object of the bytes of the old one.
PreparedUpload prepareCopy(CloudClient& client, std::uint64_t size)
{
    PreparedUpload copy{client.createMultipartUpload("key", "old"), {{0, 0, size, "old"}}};
    copy.parts[0].Tag = client.copyPart("key", copy.id, copy.parts[0]);
    return copy;
}

// The transport sends a request again when its connection breaks, so that a completion may arrive twice. The response
// to the second says nothing about the first.
TEST(CompletionTest, ChecksTheOutcomeWhenItHasArrivedTwice)
{
    const Reply seconds[] = {Reply::error(404, "NoSuchUpload"), Reply::error(500, "InternalError"),
        Reply::error(412, "PreconditionFailed"), Reply::raw("", Reply::Then::Close)};
    for (const Reply& second : seconds)
    {
        for (const auto& [made, isConditional] :
            {std::pair(&newTag, false), {&newTag, true}, {&theirTag, false}, {&theirTag, true}})
        {
            SCOPED_TRACE(
                testing::Message() << second.body << ", stored " << *made << ", conditional " << isConditional);
            FakeStore store{3};
            store.handler = [&, made = made](const Request& request) -> std::optional<Reply>
            {
                if (isCompletion(request))
                {
                    return store.tag.exchange(made) == made ? second : Reply::raw("", Reply::Then::Close);
                }
                return request.method() == http::get ? std::optional(Reply::error(404, "NoSuchUpload")) : std::nullopt;
            };
            store.settings.capabilities.conditionalCompletion = isConditional;
            S3Client client(store.settings);
            const std::string id = client.createMultipartUpload("key", "old");
            const PreparedUpload upload{id, {conformance::uploadPart(client, "key", id, 0, bytes)}};
            EXPECT_EQ(test::failureOf([&] { upload.complete(client, "key"); }).empty(), made == &newTag);
            const auto requests = store.server.requests();
            for (const Request& request : requests)
            {
                EXPECT_EQ(request["If-Match"], isCompletion(request) && isConditional ? "\"old\"" : "");
            }
            EXPECT_EQ(std::count_if(requests.begin(), requests.end(), isCompletion), 2);
            EXPECT_EQ(requests.at(2).method() == http::head, !isConditional) << "checked before the completion";
        }
    }
}

TEST(CompletionTest, GetsANewRetryBudgetForProgressAndCopiesNothingTwice)
{
    std::atomic<int> seconds = 0;
    std::atomic<int> copies = 0;
    FakeStore store{12 * gibi};
    store.handler = [&](const Request& request)
    {
        seconds += isCopy(request) ? 121 : 0; // longer than the budget
        return isCopy(request) && ++copies == 2 ? std::optional(Reply{.status = 503}) : std::nullopt;
    };
    store.settings.transfers = 1;
    const auto now = [&] { return std::chrono::steady_clock::time_point(std::chrono::seconds(seconds)); };
    RetryingClient client(std::make_shared<S3Client>(store.settings), {},
        {now, [](auto) {}, [](auto) { return RetryClock::Duration(0); }});
    EXPECT_NO_THROW(prepareCopy(client, 12 * gibi).complete(client, "key"));
    EXPECT_EQ(copies, 3 + 1);
}

TEST(CompletionTest, WaitsLongerForLargerCopies)
{
    FakeStore store{gibi};
    store.handler = [&](const Request& request)
    {
        Reply reply = store.respond(request);
        reply.delay = std::chrono::milliseconds(isCopy(request) ? 1500 : 0);
        return reply;
    };
    store.settings.timeouts.serverSideStallWindow = std::chrono::seconds(1);
    store.settings.timeouts.serverSideBytesPerSecond = 1 << 24;
    S3Client client(store.settings);
    // The copy must not time out. The completion after it may, if the machine is busy.
    test::failureOf([&] { prepareCopy(client, gibi).complete(client, "key"); });
    EXPECT_THAT(store.server.requests(), testing::Contains(testing::Truly(isCompletion))) << "the copy should succeed";
}

TEST(CompletionTest, SendsOnePartAtATimeWhereMemoryHasNoRoomForTwo)
{
    FakeStore store{0};
    store.settings.memory = 18 << 20;
    S3Client client(store.settings);
    PreparedUpload upload{client.createMultipartUpload("key", "old"), {}};
    for (std::size_t i = 0; i < 5; ++i) // three parts of the new object
    {
        upload.parts.push_back(conformance::uploadPart(client, "key", upload.id, i, std::string(3 << 20, 'x')));
    }
    upload.complete(client, "key");
    EXPECT_EQ(store.server.requests().size(), 6U);
    EXPECT_EQ(store.server.connections(), 1U);
}

TEST(CompletionTest, CopiesAgainAfterTheObjectWasAnotherVersion)
{
    FakeStore store{gibi};
    S3Client client(store.settings);
    const PreparedUpload upload = prepareCopy(client, gibi);
    store.tag = &theirTag;
    EXPECT_THROW(upload.complete(client, "key"), UnknownErrorException);
    store.tag = &oldTag;
    EXPECT_NO_THROW(upload.complete(client, "key"));
    EXPECT_EQ(store.copies(), 2);
}

TEST(CompletionTest, ASmallPatchOfALargeFileTakesFewRequestsFromOpenToClose)
{
    const struct
    {
        std::uint64_t offset;
        std::size_t requests; // to open, to read, to begin, to read and send at least what the store takes, to complete
        std::size_t copies;
    } rows[] = {
        {0, 6, 2}, {3 * gibi, 6, 3}, {5 * gibi, 6, 2}, {6 * gibi, 6, 3},
        {10 * gibi - 1024, 5, 2}, // the last part may be small
    };
    for (const bool isConditional : {true, false})
    {
        for (const auto& row : rows)
        {
            SCOPED_TRACE(testing::Message() << "at " << row.offset << ", conditional " << isConditional);
            FakeStore store{10 * gibi};
            store.settings.capabilities.conditionalCopies = isConditional;
            store.settings.capabilities.conditionalCompletion = isConditional;
            S3Client client(store.settings);
            test::preparePatch(client, "key", row.offset, std::string(1024, 'y')).complete(client, "key");
            EXPECT_EQ(store.server.requests().size(), row.requests + row.copies + (isConditional ? 0 : 1)); // one check
            EXPECT_EQ(store.copies(), row.copies);
        }
    }
}

TEST(CompletionTest, ALostRaceHasAKnownOutcomeWhileTheUploadIsOpen)
{
    for (const bool endsUpload : {false, true})
    {
        FakeStore store{3};
        std::atomic<int> lookups = 0; // of the upload
        store.handler = [&](const Request& request) -> std::optional<Reply>
        {
            const bool isLast = request.method() == http::get && ++lookups == 2;
            store.tag = isCompletion(request) ? &theirTag : store.tag.load();
            return isCompletion(request)               ? std::optional(Reply::error(409, "OperationAborted"))
                   : request.method() == http::delete_ ? std::optional(Reply::stall())
                   : isLast && endsUpload              ? std::optional(Reply::error(404, "NoSuchUpload"))
                                                       : std::nullopt;
        };
        store.settings.timeouts.cleanUp = std::chrono::milliseconds(200);
        S3Client client(store.settings);
        const std::string id = client.createMultipartUpload("key", "old");
        const PreparedUpload upload{id, {conformance::uploadPart(client, "key", id, 0, bytes)}};
        EXPECT_THROW(upload.complete(client, "key"), TransientException);
        EXPECT_THAT(test::failureOf([&] { upload.complete(client, "key"); }),
            testing::StartsWith(endsUpload ? "Outcome unknown" : "Object changed"));
        EXPECT_THAT(
            test::failureOf([&] { client.abortMultipartUpload("key", id); }), testing::HasSubstr("timed out after"))
            << "the stall window is not for an abort";
    }
}

/// A store of one object of one byte.
struct ConditionalStore
{
    const Reply refusal; // of requests with a condition; status 200: it knows conditions
    std::atomic<char> stored = 0;
    std::atomic<bool> losesResponse = false;

    static std::string tagOf(char byte) { return toHex(md5(std::string(1, byte))); }

    Reply respond(const Request& request)
    {
        const std::string etag = stored == 0 ? "" : '"' + tagOf(stored) + '"';
        if (request.method() == http::head || request.method() == http::get)
        {
            return stored == 0 ? Reply::error(404, "NoSuchKey")
                               : Reply{.fields = {{"ETag", etag}, {"Last-Modified", "Sat, 01 Jan 2022 00:00:00 GMT"},
                                           {"Content-Length", "1"}}};
        }
        const auto ifNone = request["If-None-Match"];
        const auto ifSame = request["If-Match"];
        if (refusal.status != 200 && ifNone.size() + ifSame.size() > 0)
        {
            return refusal;
        }
        if ((!ifNone.empty() && stored != 0) || (!ifSame.empty() && ifSame != etag))
        {
            return Reply::error(412, "PreconditionFailed");
        }
        stored = request.method() == http::put ? request.body().at(0) : '\0';
        return losesResponse.exchange(false) ? Reply::raw("", Reply::Then::Close)
                                             : Reply{.fields = {{"ETag", '"' + tagOf(stored) + '"'}}};
    }
};

TEST(ConditionTest, HoldsWhetherTheEndpointKnowsItOrNot)
{
    const struct
    {
        bool isTrusted;
        std::size_t requests; // to create the object
        Reply refusal = {};
    } rows[] = {{true, 1}, {false, 3}, {false, 4, Reply::error(501, "NotImplemented")},
        {false, 4, Reply::error(400, "InvalidArgument")}};
    for (const auto& row : rows)
    {
        SCOPED_TRACE(testing::Message() << row.isTrusted << ' ' << row.refusal.body);
        ConditionalStore store{row.refusal};
        LoopbackServer server([&](const Request& request) { return store.respond(request); });
        S3Settings settings = test::settingsFor(server);
        settings.capabilities.conditionalWrites = row.isTrusted;
        S3Client client(settings);
        const auto attempt = [&](char required, char content)
        {
            const auto condition = client.requireVersion("key", required == 0 ? "" : store.tagOf(required));
            return test::failureOf(
                [&] { content == 0 ? client.deleteObject("key") : conformance::put(client, "key", {content}); });
        };
        EXPECT_EQ(attempt(0, 'a'), "");
        EXPECT_EQ(server.requests().size(), row.requests);
        EXPECT_TRUE(attempt(0, 'a').starts_with("Cloud Resource already exists")) << "the same bytes of somebody else";
        EXPECT_TRUE(attempt('b', 'c').starts_with("Object changed"));
        EXPECT_EQ(attempt('a', 'b'), "");
        EXPECT_TRUE(attempt('a', 0).starts_with("Object changed"));
        EXPECT_EQ(attempt('b', 0), "");
        for (const char content : {'d', '\0'})
        {
            const char required = store.stored;
            store.losesResponse = true;
            EXPECT_EQ(attempt(required, content), "") << "the transport has sent it again";
            EXPECT_EQ(store.stored, content);
        }
    }
}

// The bytes of another program are there, and this client did not look for them before, or not in time.
TEST(ConditionTest, ReplacesNothingWhereTheStoreRefusesToCompare)
{
    for (const auto& [isTrusted, refusal] : {std::pair(true, Reply::error(400, "InvalidArgument")),
             {false, Reply::error(409, "Conflict")}, {false, Reply::error(400, "EntityTooSmall")}})
    {
        ConditionalStore store{refusal};
        store.stored = isTrusted ? 'a' : '\0';
        LoopbackServer server([&](const Request& request) { return store.respond(request); });
        S3Settings settings = test::settingsFor(server);
        settings.capabilities.conditionalWrites = isTrusted;
        S3Client client(settings);
        const auto condition = client.requireVersion("key", "");
        EXPECT_THROW(conformance::put(client, "key", "b"), CloudException);
        EXPECT_NE(store.stored, 'b') << refusal.body;
    }
}

TEST(ParallelTest, ThreadsThatWaitForAnUploadToBeOpenedFailWithIt)
{
    constexpr std::size_t threads = 8;
    std::latch begun(threads);
    FakeStore store{3};
    store.handler = [&](const Request&)
    {
        begun.wait();
        return Reply{.status = 503, .delay = std::chrono::milliseconds(200)}; // the others reach the lock meanwhile
    };
    S3Client client(store.settings);
    const std::string id = client.createMultipartUpload("key", "");
    const auto send = [&]
    {
        begun.count_down();
        conformance::uploadPart(client, "key", id, 0, bytes);
    };
    EXPECT_THROW(runParallel(threads, Tasks(threads, send), 1, {}), TransientException);
    EXPECT_LT(store.server.requests().size(), threads) << "one after the other";
}

TEST(ParallelTest, RunsEverythingOnTheCallersThreadWhereNoOtherStarts)
{
    pthread_attr_t usual;
    pthread_getattr_default_np(&usual);
    pthread_attr_t huge = usual;
    pthread_attr_setstacksize(&huge, std::size_t(1) << 50U); // more than there are addresses: no thread can start
    pthread_setattr_default_np(&huge);
    int done = 0;
    EXPECT_NO_THROW(runParallel(8, {[&] { ++done; }, [&] { ++done; }}, 2, {[&] { ++done; }}));
    pthread_setattr_default_np(&usual);
    EXPECT_EQ(done, 3);
}

} // namespace

} // namespace storage::clients::s3
