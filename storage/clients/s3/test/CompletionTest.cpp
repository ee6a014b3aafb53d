#include "FileSession.hpp"
#include "LoopbackServer.hpp"
#include "Parallel.hpp"

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
#include <sstream>

#include <pthread.h>

// Completions of multipart uploads: how many requests they take, and what becomes of those that fail.

namespace storage::clients::s3
{

namespace
{

using namespace cloudprovider;
using clients::test::LoopbackServer;
using clients::test::Reply;
using clients::test::Request;
using clients::test::succeeds;
using http = boost::beast::http::verb;

constexpr std::uint64_t gibi = 1 << 30;
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
            EXPECT_TRUE(patch.run(test::workingAhead(std::make_shared<S3Client>(store.settings))).succeeded);
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
