#include "FileSession.hpp"
#include "LoopbackServer.hpp"
#include "Parallel.hpp"
#include "PartCutting.hpp"
#include "UploadPlan.hpp"

#include "signing/Hashing.hpp"

#include <storage/clients/decorators/RetryingClient.hpp>
#include <storage/clients/s3/S3Client.hpp>
#include <storage/cloudprovider/CloudExceptions.hpp>

#include <fmt/format.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstdio>
#include <functional>
#include <limits>
#include <random>
#include <sstream>

#include <pthread.h>

// Multipart uploads: their plan, how many requests they take, and what becomes of completions that fail.

namespace storage::clients::s3
{

namespace
{

using namespace cloudprovider;
using How = PlannedPart::How;
using clients::test::LoopbackServer;
using clients::test::Reply;
using clients::test::Request;
using clients::test::succeeds;
using http = boost::beast::http::verb;

constexpr std::uint64_t gibi = 1 << 30;
constexpr std::uint64_t mebi = 1 << 20;

std::optional<UploadPlan> tryPlan(const std::vector<FilePart>& file, const UploadLimits& limits)
{
    try
    {
        return planUpload(file, limits);
    }
    catch (const UnsupportedOperationException&)
    {
        return std::nullopt;
    }
}

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
void expectRight(
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
    std::size_t number = 0;
    for (const PlannedPart& part : plan.parts)
    {
        const bool isLast = &part == &plan.parts.back();
        std::uint64_t sum = 0;
        for (const PlannedBytes& bytes : part.bytes)
        {
            add(planned, bytes);
            sum += bytes.size;
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
        }
        EXPECT_TRUE(!limits.equalParts || isLast || part.size == plan.parts[0].size);
        size += part.size;
    }
    EXPECT_EQ(planned, expected);
    EXPECT_LE(number, limits.maxParts);
    EXPECT_EQ(plan.size, size);
    EXPECT_LE(plan.size, limits.maxObjectSize);
    EXPECT_EQ(plan.needsVersionCheck, copies && !limits.pinnedCopies);
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
        const auto plan = tryPlan(file, limits);
        EXPECT_TRUE(plan || !isLegal || total > limits.maxObjectSize);
        plan ? expectRight(*plan, file, limits, isLegal ? 2 * largest : std::numeric_limits<std::uint64_t>::max())
             : void();
    }
}

/// A stored object as the provider opens it, the parts from `first` to `last` changed, and bytes appended.
std::vector<FilePart> patched(
    std::uint64_t objectSize, std::uint64_t partSize, std::size_t first, std::size_t last, std::uint64_t appended)
{
    std::vector<FilePart> file;
    for (const auto& part : cutIntoParts(objectSize, "tag", partSize))
    {
        const bool isChanged = part.Index >= first && part.Index <= last;
        file.push_back({part.Index, isChanged ? PartPlace::Spooled : PartPlace::Object, part.Size, part.Offset});
    }
    while (appended > 0)
    {
        // The last part grows to the size of new ones first.
        FilePart& end = file.back();
        const std::uint64_t grown = std::min(appended, minPartSize - std::min<std::uint64_t>(end.size, minPartSize));
        end.place = grown > 0 ? PartPlace::Spooled : end.place;
        end.size += grown;
        appended -= grown;
        if (appended > 0)
        {
            file.push_back({end.index + 1, PartPlace::Spooled, 0, 0});
        }
    }
    for (FilePart& part : file)
    {
        const bool isSent = part.place == PartPlace::Spooled && part.size >= minPartSize;
        part.place = isSent ? PartPlace::Uploaded : part.place;
    }
    return file;
}

TEST(UploadPlanTest, PlansEveryPatchOfAnObjectAsItIsCut)
{
    std::mt19937_64 random(2);
    const auto roll = [&](std::uint64_t max) { return std::uniform_int_distribution<std::uint64_t>(0, max)(random); };
    for (int round = 0; round < 300 && !testing::Test::HasFailure(); ++round)
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
            const auto plan = tryPlan(file, limits);
            ASSERT_TRUE(plan);
            expectRight(*plan, file, limits, file.front().size / 4 * 5);
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

bool isCompletion(const Request& request)
{
    return request.method() == http::post && request.target().find("uploadId=") != boost::beast::string_view::npos;
}

/// A store of one object, which claims to have as many bytes as it is told. Conditions on copies are ignored.
struct FakeStore
{
    using Handler = std::function<std::optional<Reply>(const Request&)>;

    /// @param handler  responds to some requests in the store's place
    explicit FakeStore(
        std::uint64_t objectSize, Handler handler = [](const Request&) { return std::nullopt; })
        : size(objectSize)
        , server([this, handler](const Request& request) { return handler(request).value_or(respond(request)); })
        , settings{.bucket = "bucket",
              .endpoint = server.url(),
              .region = "us-east-1",
              .pathStyle = true,
              .credentials = anonymousCredentials()}
    {
    }

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

    auto count(bool (*predicate)(const Request&)) const
    {
        const auto requests = server.requests();
        return std::count_if(requests.begin(), requests.end(), predicate);
    }

    const std::uint64_t size;
    std::atomic<const std::string*> tag = &oldTag;
    LoopbackServer server;
    S3Settings settings;

private:
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

/// Make a new object of the bytes of the old one.
void copyAll(CloudClient& client, std::uint64_t size)
{
    const std::string upload = client.createMultipartUpload("key", "old");
    PartInfo part{0, 0, size, "old"};
    part.Tag = client.copyPart("key", upload, part);
    client.completeMultipartUpload("key", upload, {part});
}

// The transport sends a request again when its connection breaks, so that a completion may arrive twice. The response
// to the second says nothing about the first.
TEST(CompletionTest, ChecksTheOutcomeWhenItHasArrivedTwice)
{
    const Reply seconds[] = {{404, {}, "<Error><Code>NoSuchUpload</Code></Error>"},
        {500, {}, "<Error><Code>InternalError</Code></Error>"},
        {412, {}, "<Error><Code>PreconditionFailed</Code></Error>"}, Reply::raw("", Reply::Then::Close)};
    for (const Reply& second : seconds)
    {
        for (const auto& [made, isConditional] :
            {std::pair(&newTag, false), {&newTag, true}, {&theirTag, false}, {&theirTag, true}})
        {
            SCOPED_TRACE(
                testing::Message() << second.body << ", stored " << *made << ", conditional " << isConditional);
            FakeStore* self = nullptr;
            FakeStore store(3,
                [&, made = made](const Request& request) -> std::optional<Reply>
                {
                    if (request.method() == http::get)
                    {
                        return Reply{404, {}, "<Error><Code>NoSuchUpload</Code></Error>"};
                    }
                    if (!isCompletion(request))
                    {
                        return std::nullopt;
                    }
                    return self->tag.exchange(made) == made ? second : Reply::raw("", Reply::Then::Close);
                });
            self = &store;
            store.settings.capabilities.conditionalCompletion = isConditional;
            S3Client client(store.settings);
            const std::string upload = client.createMultipartUpload("key", "old");
            std::istringstream content(bytes);
            PartInfo part{0, 0, bytes.size(), ""};
            part.Tag = client.uploadPart("key", upload, part, content);
            EXPECT_EQ(succeeds([&] { client.completeMultipartUpload("key", upload, {part}); }), made == &newTag);
            const auto requests = store.server.requests();
            for (const Request& request : requests)
            {
                EXPECT_EQ(request["If-Match"], isCompletion(request) && isConditional ? "\"old\"" : "");
            }
            EXPECT_EQ(store.count(isCompletion), 2);
            const bool isChecked = std::any_of(requests.begin(), requests.begin() + 3,
                [](const Request& request) { return request.method() == http::head; });
            EXPECT_EQ(isChecked, !isConditional) << "before the completion";
        }
    }
}

TEST(CompletionTest, GetsANewRetryBudgetForProgressAndCopiesNothingTwice)
{
    std::atomic<int> seconds = 0;
    std::atomic<int> copies = 0;
    FakeStore store(12 * gibi,
        [&](const Request& request)
        {
            seconds += isCopy(request) ? 121 : 0; // longer than the budget
            return isCopy(request) && ++copies == 2 ? std::optional(Reply{.status = 503}) : std::nullopt;
        });
    store.settings.transfers = 1;
    const auto now = [&] { return std::chrono::steady_clock::time_point(std::chrono::seconds(seconds)); };
    RetryingClient client(std::make_shared<S3Client>(store.settings), {},
        {now, [](auto) {}, [](auto) { return RetryClock::Duration(0); }});
    EXPECT_NO_THROW(copyAll(client, 12 * gibi));
    EXPECT_EQ(copies, 3 + 1);
}

TEST(CompletionTest, WaitsLongerForLargerCopies)
{
    FakeStore store(gibi,
        [](const Request& request)
        {
            return isCopy(request) ? std::optional(Reply{.body = "<CopyPartResult><ETag>a</ETag></CopyPartResult>",
                                         .delay = std::chrono::milliseconds(1500)})
                                   : std::nullopt;
        });
    store.settings.timeouts.serverSideStallWindow = std::chrono::seconds(1);
    store.settings.timeouts.serverSideBytesPerSecond = 1 << 30;
    S3Client client(store.settings);
    EXPECT_NO_THROW(copyAll(client, gibi));
}

TEST(CompletionTest, SendsOnePartAtATimeWhereMemoryHasNoRoomForTwo)
{
    FakeStore store(0);
    store.settings.memory = 18 << 20;
    S3Client client(store.settings);
    const std::string upload = client.createMultipartUpload("key", "old");
    std::vector<PartInfo> parts;
    for (std::size_t i = 0; i < 5; ++i) // three parts of the new object
    {
        std::istringstream content(std::string(3 << 20, 'x'));
        parts.push_back({i, 0, 3 << 20, ""});
        parts.back().Tag = client.uploadPart("key", upload, parts.back(), content);
    }
    client.completeMultipartUpload("key", upload, parts);
    EXPECT_EQ(store.server.requests().size(), 6U);
    EXPECT_EQ(store.server.connections(), 1U);
}

TEST(CompletionTest, CopiesAgainAfterTheObjectWasAnotherVersion)
{
    FakeStore store(gibi);
    S3Client client(store.settings);
    const std::string upload = client.createMultipartUpload("key", "old");
    PartInfo part{0, 0, gibi, "old"};
    part.Tag = client.copyPart("key", upload, part);
    store.tag = &theirTag;
    EXPECT_THROW(client.completeMultipartUpload("key", upload, {part}), UnknownErrorException);
    store.tag = &oldTag;
    EXPECT_NO_THROW(client.completeMultipartUpload("key", upload, {part}));
    EXPECT_EQ(store.count(isCopy), 2);
}

TEST(CompletionTest, LeavesReadersPinnedThatOpenTheObjectMeanwhile)
{
    S3Client* reader = nullptr;
    FakeStore store(gibi,
        [&](const Request& request) -> std::optional<Reply>
        {
            if (!isCopy(request))
            {
                return std::nullopt;
            }
            reader->getObjectParts("key");
            return Reply{.status = 400};
        });
    S3Client client(store.settings);
    reader = &client;
    EXPECT_THROW(copyAll(client, gibi), UnknownErrorException);
    store.tag = &theirTag;
    std::ostringstream out;
    EXPECT_THROW(client.getObjectRange("key", out, 0, 9), UnknownErrorException);
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
            FakeStore store(10 * gibi);
            store.settings.capabilities.conditionalCopies = isConditional;
            store.settings.capabilities.conditionalCompletion = isConditional;
            const test::FileSession patch{.offset = row.offset, .bytes = std::string(1024, 'y')};
            EXPECT_TRUE(patch.run(test::workingAhead(std::make_shared<S3Client>(store.settings)), "file").succeeded);
            EXPECT_EQ(store.server.requests().size(), row.requests + row.copies + (isConditional ? 0 : 1)); // one check
            EXPECT_EQ(store.count(isCopy), row.copies);
        }
    }
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
