#include "FileSession.hpp"
#include "LoopbackServer.hpp"

#include "signing/Hashing.hpp"

#include <storage/clients/decorators/RetryingClient.hpp>
#include <storage/clients/s3/S3Client.hpp>
#include <storage/cloudprovider/CloudExceptions.hpp>

#include <fmt/format.h>
#include <gmock/gmock.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstdio>
#include <mutex>
#include <sstream>

// A request whose kept connection breaks is sent again by the transport, unseen: a completion may arrive twice. What
// the second one is answered says nothing about the first.

namespace storage::clients::s3
{

namespace
{

using clients::test::LoopbackServer;
using clients::test::Reply;
using clients::test::Request;

const std::string bytes = "new";
const std::string partTag = toHex(md5(bytes));
const std::string newTag = toHex(md5(md5(bytes))) + "-1";

S3Settings settingsFor(const LoopbackServer& server)
{
    return {.bucket = "bucket",
        .endpoint = server.url(),
        .region = "us-east-1",
        .pathStyle = true,
        .credentials = anonymousCredentials()};
}

/// A store of one object that does what the first completion asks for, and loses the answer.
class ForgetfulStore
{
public:
    ForgetfulStore(Reply second, std::string made)
        : m_second(std::move(second))
        , m_done(std::move(made))
    {
    }

    Reply operator()(const Request& request)
    {
        const std::lock_guard lock(m_mutex);
        const std::string target(request.target());
        const bool isOfUpload = target.find("uploadId=") != std::string::npos;
        switch (request.method())
        {
        case boost::beast::http::verb::head:
            return {.fields = {{"ETag", '"' + m_stored + '"'}, {"Last-Modified", "Sat, 01 Jan 2022 00:00:00 GMT"}}};
        case boost::beast::http::verb::put:
            return {.fields = {{"ETag", '"' + partTag + '"'}}};
        case boost::beast::http::verb::get:
            return {.status = 404, .body = "<Error><Code>NoSuchUpload</Code></Error>"};
        default:
            break;
        }
        if (!isOfUpload)
        {
            return {.body = "<InitiateMultipartUploadResult><UploadId>1</UploadId></InitiateMultipartUploadResult>"};
        }
        m_conditions.emplace_back(request["If-Match"]);
        if (m_conditions.size() > 1)
        {
            return m_second;
        }
        m_stored = m_done;
        return Reply::raw("", Reply::Then::Close);
    }

    std::vector<std::string> conditions() const
    {
        const std::lock_guard lock(m_mutex);
        return m_conditions;
    }

private:
    const Reply m_second;
    const std::string m_done;
    mutable std::mutex m_mutex;
    std::string m_stored = "old";
    std::vector<std::string> m_conditions; // of the completions
};

struct Second
{
    const char* name;
    Reply reply;
};

class CompletionTest : public testing::TestWithParam<Second>
{
};

TEST_P(CompletionTest, IsLookedIntoWhenItHasArrivedTwice)
{
    for (const bool isConditional : {false, true})
    {
        for (const std::string& made : {newTag, std::string("theirs")})
        {
            ForgetfulStore store(GetParam().reply, made);
            LoopbackServer server([&](const Request& request) { return store(request); });
            S3Settings settings = settingsFor(server);
            settings.capabilities.conditionalCompletion = isConditional;
            S3Client client(settings);
            const std::string upload = client.createMultipartUpload("key", "old");
            std::istringstream content(bytes);
            const std::string tag = client.uploadPart("key", upload, {0, 0, bytes.size(), ""}, content);
            const auto complete = [&] { client.completeMultipartUpload("key", upload, {{0, 0, bytes.size(), tag}}); };
            SCOPED_TRACE(testing::Message() << "stored " << made << ", conditional " << isConditional);
            if (made == newTag)
            {
                EXPECT_NO_THROW(complete());
            }
            else
            {
                EXPECT_THROW(complete(), cloudprovider::CloudException);
            }
            EXPECT_EQ(store.conditions(), std::vector<std::string>(2, isConditional ? "\"old\"" : ""));
            const auto requests = server.requests();
            const bool looked = std::any_of(requests.begin(), requests.begin() + 3,
                [](const Request& request) { return request.method() == boost::beast::http::verb::head; });
            EXPECT_EQ(looked, !isConditional) << "before the completion";
        }
    }
}

INSTANTIATE_TEST_SUITE_P(Answers, CompletionTest,
    testing::Values(Second{"gone", {404, {}, "<Error><Code>NoSuchUpload</Code></Error>"}},
        Second{"failed", {500, {}, "<Error><Code>InternalError</Code></Error>"}},
        Second{"changed", {412, {}, "<Error><Code>PreconditionFailed</Code></Error>"}},
        Second{"lost", Reply::raw("", Reply::Then::Close)}),
    [](const auto& row) { return std::string(row.param.name); });

constexpr std::uint64_t gibi = 1 << 30;

bool isCopy(const Request& request)
{
    return request.count("x-amz-copy-source") > 0;
}

/// A store of one object, which has as many bytes as it is told to say. Conditions on copies are ignored.
class LargeObject
{
public:
    explicit LargeObject(std::uint64_t size)
        : m_size(size)
    {
    }

    void setTag(const std::string& tag)
    {
        const std::lock_guard lock(m_mutex);
        m_tag = tag;
    }

    Reply operator()(const Request& request) const
    {
        const std::lock_guard lock(m_mutex);
        switch (request.method())
        {
        case boost::beast::http::verb::head:
            return {.fields = {{"ETag", '"' + m_tag + '"'}, {"Last-Modified", "Sat, 01 Jan 2022 00:00:00 GMT"},
                        {"Content-Length", std::to_string(m_size)}}};
        case boost::beast::http::verb::get:
            return request["If-Match"].empty() || request["If-Match"] == '"' + m_tag + '"' ? read(request)
                                                                                           : Reply{.status = 412};
        case boost::beast::http::verb::put:
            return {.fields = {{"ETag", '"' + partTag + '"'}},
                .body = isCopy(request) ? "<CopyPartResult><ETag>" + partTag + "</ETag></CopyPartResult>" : ""};
        default:
            return {
                .body = request.target().find("uploadId=") == boost::beast::string_view::npos
                            ? "<InitiateMultipartUploadResult><UploadId>1</UploadId></InitiateMultipartUploadResult>"
                            : "<CompleteMultipartUploadResult><ETag>new</ETag></CompleteMultipartUploadResult>"};
        }
    }

private:
    Reply read(const Request& request) const
    {
        unsigned long first = 0;
        unsigned long last = 0;
        std::sscanf(std::string(request["Range"]).c_str(), "bytes=%lu-%lu", &first, &last);
        last = std::min(last, m_size - 1);
        return {.status = 206,
            .fields = {{"ETag", '"' + m_tag + '"'},
                {"Content-Range", fmt::format("bytes {}-{}/{}", first, last, m_size)}},
            .body = std::string(last - first + 1, 'x')};
    }

    const std::uint64_t m_size;
    mutable std::mutex m_mutex;
    std::string m_tag = "old";
};

/// Make a new object of the bytes of the old one.
void copyAll(cloudprovider::CloudClient& client, std::uint64_t size)
{
    const std::string upload = client.createMultipartUpload("key", "old");
    cloudprovider::PartInfo part{0, 0, size, "old"};
    part.Tag = client.copyPart("key", upload, part);
    client.completeMultipartUpload("key", upload, {part});
}

TEST(LongCompletionTest, IsGivenNewPatienceForWhatItMadeAndMakesNothingTwice)
{
    std::atomic<int> seconds = 0;
    std::atomic<int> copies = 0;
    const LargeObject store(12 * gibi);
    LoopbackServer server(
        [&](const Request& request)
        {
            seconds += isCopy(request) ? 121 : 0; // longer than anybody waits
            return isCopy(request) && ++copies == 2 ? Reply{.status = 503} : store(request);
        });
    S3Settings settings = settingsFor(server);
    settings.transfers = 1;
    const auto now = [&] { return std::chrono::steady_clock::time_point(std::chrono::seconds(seconds)); };
    RetryingClient client(
        std::make_shared<S3Client>(settings), {}, {now, [](auto) {}, [](auto) { return RetryClock::Duration(0); }});
    EXPECT_NO_THROW(copyAll(client, 12 * gibi));
    EXPECT_EQ(copies, 3 + 1);
}

TEST(LongCompletionTest, WaitsLongerForLargerCopies)
{
    const LargeObject store(gibi);
    LoopbackServer server(
        [&](const Request& request)
        {
            Reply reply = store(request);
            reply.pause = std::chrono::milliseconds(isCopy(request) ? 30 : 0); // some seconds for all of its bytes
            return reply;
        });
    S3Settings settings = settingsFor(server);
    settings.timeouts.stallBytesPerSecond = 1 << 20;
    settings.timeouts.serverSideStallWindow = std::chrono::seconds(1);
    settings.timeouts.serverSideBytesPerSecond = 1 << 20;
    S3Client client(settings);
    EXPECT_NO_THROW(copyAll(client, gibi));
}

TEST(LongCompletionTest, SendsOnePartAtATimeWhereMemoryHasNoRoomForTwo)
{
    const LargeObject store(0);
    LoopbackServer server([&](const Request& request) { return store(request); });
    S3Settings settings = settingsFor(server);
    settings.memory = 18 << 20;
    S3Client client(settings);
    const std::string upload = client.createMultipartUpload("key", "old");
    std::vector<cloudprovider::PartInfo> parts;
    for (std::size_t i = 0; i < 5; ++i) // three parts of the new object
    {
        std::istringstream content(std::string(3 << 20, 'x'));
        parts.push_back({i, 0, 3 << 20, ""});
        parts.back().Tag = client.uploadPart("key", upload, parts.back(), content);
    }
    client.completeMultipartUpload("key", upload, parts);
    EXPECT_EQ(server.requests().size(), 6U);
    EXPECT_EQ(server.connections(), 1U);
}

TEST(LongCompletionTest, TakesNothingThatWasMadeOfAnotherVersion)
{
    LargeObject store(gibi);
    LoopbackServer server([&](const Request& request) { return store(request); });
    S3Client client(settingsFor(server));
    const std::string upload = client.createMultipartUpload("key", "old");
    cloudprovider::PartInfo part{0, 0, gibi, "old"};
    part.Tag = client.copyPart("key", upload, part);
    store.setTag("theirs");
    EXPECT_THROW(client.completeMultipartUpload("key", upload, {part}), cloudprovider::UnknownErrorException);
    store.setTag("old");
    EXPECT_NO_THROW(client.completeMultipartUpload("key", upload, {part}));
    const auto requests = server.requests();
    EXPECT_EQ(std::count_if(requests.begin(), requests.end(), isCopy), 2);
}

TEST(LongCompletionTest, LeavesReadersPinnedWhoOpenTheObjectMeanwhile)
{
    LargeObject store(gibi);
    S3Client* reader = nullptr;
    LoopbackServer server(
        [&](const Request& request)
        {
            if (!isCopy(request))
            {
                return store(request);
            }
            reader->getObjectParts("key");
            return Reply{.status = 400};
        });
    S3Client client(settingsFor(server));
    reader = &client;
    EXPECT_THROW(copyAll(client, gibi), cloudprovider::UnknownErrorException);
    store.setTag("theirs");
    std::ostringstream out;
    EXPECT_THROW(client.getObjectRange("key", out, 0, 9), cloudprovider::UnknownErrorException);
}

TEST(LongCompletionTest, ASmallPatchOfALargeFileTakesFewRequestsFromOpenToClose)
{
    const struct
    {
        std::uint64_t offset;
        std::size_t requests; // to open, to read, to begin, to read and send what the store takes no less than, to end
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
            const LargeObject store(10 * gibi);
            LoopbackServer server([&](const Request& request) { return store(request); });
            S3Settings settings = settingsFor(server);
            settings.capabilities.conditionalCopies = settings.capabilities.conditionalCompletion = isConditional;
            test::FileSession session(test::workingAhead(std::make_shared<S3Client>(settings)));
            session.open(test::fsp::ByteStreamTruncate::Keep);
            session.write(row.offset, std::string(1024, 'y'));
            session.close();
            EXPECT_TRUE(session.succeeded());
            const auto requests = server.requests();
            EXPECT_EQ(requests.size(), row.requests + row.copies + (isConditional ? 0 : 1)); // one to look again
            EXPECT_EQ(std::count_if(requests.begin(), requests.end(), isCopy), row.copies);
        }
    }
}

} // namespace

} // namespace storage::clients::s3
