#include "FaultProxy.hpp"
#include "Gateway.hpp"
#include "TestCertificate.hpp"

#include "protocol/Requester.hpp"
#include "signing/Hashing.hpp"

#include <storage/clients/common/TransientException.hpp>
#include <storage/cloudprovider/CloudExceptions.hpp>
#include <storage/cloudprovider/CloudProvider.hpp>

#include <gmock/gmock.h>

#include <algorithm>
#include <filesystem>
#include <fstream>
#include <map>
#include <regex>
#include <sstream>
#include <thread>

// What the gateway does where endpoints differ, and what the client makes of it.

namespace storage::clients::s3::test
{

namespace
{

using namespace cloudprovider;
using namespace clients::test;
namespace http = boost::beast::http;

const std::string otherTag = "\"00000000000000000000000000000000\"";

constexpr std::size_t minPartSize = 5 << 20; // bytes, of one that is not the last

/// Asks the endpoint without the client, about an object "key" unless told otherwise.
class Asker
{
public:
    Asker() { ask(Operation::PutObject, "PUT", {}, {}, "content"); }

    HttpResponse ask(Operation operation, const std::string& method, const QueryParameters& query = {},
        const std::vector<HttpHeaders::Field>& fields = {}, const std::string& text = {})
    {
        TextBody body(text);
        S3Request request{operation, key, method, query};
        for (const auto& field : fields)
        {
            request.headers.add(field.name, field.value);
        }
        request.body = text.empty() ? nullptr : &body;
        return m_requester.send(request, {400, 404, 412});
    }

    /// @return the status of a put of other content
    int put(const std::vector<HttpHeaders::Field>& fields)
    {
        return ask(Operation::PutObject, "PUT", {}, fields, "other").status;
    }

    std::string tag() { return *ask(Operation::GetObjectInfo, "HEAD").headers.find("ETag"); }

    std::string begin() { return readNewUpload(ask(Operation::CreateMultipartUpload, "POST", {{"uploads", ""}}).body); }

    std::string sendPart(const std::string& upload, const std::string& number, const std::string& text = "part")
    {
        const auto sent = ask(Operation::UploadPart, "PUT", {{"partNumber", number}, {"uploadId", upload}}, {}, text);
        return unquotedTag(*sent.headers.find("ETag"));
    }

    /// Make the object of two parts, of which the second is short. @return the status
    int join(std::size_t firstSize, std::size_t secondNumber)
    {
        const std::string upload = begin();
        const std::string first = sendPart(upload, "1", std::string(firstSize, 'x'));
        const std::string second = sendPart(upload, std::to_string(secondNumber));
        return ask(Operation::CompleteMultipartUpload, "POST", {{"uploadId", upload}}, {},
            writeCompletion({{1, first}, {secondNumber, second}}))
            .status;
    }

    HttpResponse complete(
        const std::string& upload, const std::string& partTag, const std::vector<HttpHeaders::Field>& fields = {})
    {
        return ask(Operation::CompleteMultipartUpload, "POST", {{"uploadId", upload}}, fields,
            writeCompletion({{1, partTag}}));
    }

    std::string key = "key";

    std::string source(const std::string& path) const { return "/" + m_bucket.settings().bucket + "/" + path; }

private:
    const GatewayBucket m_bucket;
    Requester m_requester{m_bucket.settings()};
};

struct Fact
{
    const char* name;
    bool (*holds)(Asker&);
    bool here; // on this gateway
};

const std::vector<Fact> facts{
    {"reads of another version are refused",
        [](Asker& asker)
        {
            return asker.ask(Operation::GetObjectRange, "GET", {}, {{"If-Match", otherTag}}).status == 412 &&
                   asker.ask(Operation::GetObjectRange, "GET", {}, {{"If-Match", asker.tag()}}).status == 200;
        },
        true},
    {"capability conditionalCopies",
        [](Asker& asker)
        {
            return asker
                       .ask(Operation::CopyPart, "PUT", {{"partNumber", "1"}, {"uploadId", asker.begin()}},
                           {{"x-amz-copy-source", asker.source("key")}, {"x-amz-copy-source-if-match", otherTag}})
                       .status == 412;
        },
        EndpointCapabilities().conditionalCopies},
    {"capability copiesAnyKey",
        [](Asker& asker)
        {
            return asker
                       .ask(Operation::CopyPart, "PUT", {{"partNumber", "1"}, {"uploadId", asker.begin()}},
                           {{"x-amz-copy-source", asker.source("k%2565y")}})
                       .status == 404;
        },
        EndpointCapabilities().copiesAnyKey},
    {"capability conditionalCompletion",
        [](Asker& asker)
        {
            const std::string upload = asker.begin();
            return asker.complete(upload, asker.sendPart(upload, "1"), {{"If-Match", otherTag}}).status == 412;
        },
        EndpointCapabilities().conditionalCompletion},
    {"a completed object's tag is the hash of the parts' hashes",
        [](Asker& asker)
        {
            const std::string upload = asker.begin();
            const std::string part = asker.sendPart(upload, "1");
            asker.complete(upload, part);
            return unquotedTag(asker.tag()) == toHex(md5(fromHex(part))) + "-1";
        },
        true},
    {"a completion tells the tag",
        [](Asker& asker)
        {
            const std::string upload = asker.begin();
            return !readCompletion(asker.complete(upload, asker.sendPart(upload, "1")).body).empty();
        },
        false},
    {"a completion may be repeated",
        [](Asker& asker)
        {
            const std::string upload = asker.begin();
            const std::string part = asker.sendPart(upload, "1");
            return asker.complete(upload, part).status == 200 && asker.complete(upload, part).status == 200;
        },
        true},
    {"a put keeps another version, by a tag in quotes",
        [](Asker& asker) {
            return asker.put({{"If-Match", otherTag}}) == 412 && asker.put({{"If-Match", asker.tag()}}) == 200;
        },
        false},
    {"a put keeps another version, by a bare tag",
        [](Asker& asker)
        {
            return asker.put({{"If-Match", unquotedTag(otherTag)}}) == 412 &&
                   asker.put({{"If-Match", unquotedTag(asker.tag())}}) == 200;
        },
        true},
    {"HEAD tells of the parts of an object",
        [](Asker& asker)
        {
            return asker.join(minPartSize, 2) == 200 &&
                   *asker.ask(Operation::GetObjectInfo, "HEAD", {{"partNumber", "2"}}).headers.find("Content-Length") ==
                       "4";
        },
        false},
    {"GET reads a part of an object",
        [](Asker& asker)
        {
            return asker.join(minPartSize, 2) == 200 &&
                   asker.ask(Operation::GetObjectRange, "GET", {{"partNumber", "2"}}).body == "part";
        },
        false},
    {"GetObjectAttributes tells of an object",
        [](Asker& asker)
        {
            const auto answer =
                asker.ask(Operation::GetObjectInfo, "GET", {{"attributes", ""}}, {{"x-amz-object-attributes", "ETag"}});
            return answer.body.find("GetObjectAttributesResponse") != std::string::npos;
        },
        false},
    {"a wrong Content-MD5 is refused",
        [](Asker& asker) {
            return asker.put({{"Content-MD5", toBase64(md5("content"))}}) == 400;
        },
        true},
    {"a wrong x-amz-checksum is refused",
        [](Asker& asker) {
            return asker.put({{"x-amz-checksum-crc32", "AAAAAA=="}}) == 400;
        },
        false},
    {"a part before the last may be short", [](Asker& asker) { return asker.join(minPartSize - 1, 2) == 200; }, false},
    {"numbers of parts may have gaps", [](Asker& asker) { return asker.join(minPartSize, 3) == 200; }, true},
    {"a key may have 1,025 bytes",
        [](Asker& asker)
        {
            asker.key.resize(1025, 'k');
            return asker.put({}) == 200;
        },
        false},
    {"parts that are not listed are dropped",
        [](Asker& asker)
        {
            const std::string upload = asker.begin();
            asker.sendPart(upload, "2");
            return asker.complete(upload, asker.sendPart(upload, "1")).status == 200;
        },
        false},
};

TEST(EndpointTest, IsWhatTheClientTakesItFor)
{
    REQUIRE_GATEWAY();
    for (const Fact& fact : facts)
    {
        Asker asker;
        EXPECT_EQ(fact.holds(asker), fact.here)
            << fact.name << ": this gateway is another one; see EndpointCapabilities and what relies on this";
    }
}

std::string read(CloudClient& client, const std::string& key)
{
    std::ostringstream out;
    client.getObjectRange(key, out, 0, 0);
    return out.str();
}

TEST(EndpointTest, KeysOfEveryByteClassSurvive)
{
    REQUIRE_GATEWAY();
    std::vector<std::string> keys{" ", ".", "..", "../up", "./here", "/leading", "//", "a b", "a%20b", "a+b", "a//b",
        "100%", "%zz", "%2F%20", "folder/", "tab\tline\nreturn\r", "\x7f", "\"quotes' & <tags>", "?q=1&r#s[]",
        "~-_.*!$()|,;:@=", "\u00e9\u65e5\u672c", "\U0001f600", std::string(1024, 'k')};
    std::sort(keys.begin(), keys.end());
    const GatewayBucket bucket;
    S3Client client(bucket.settings());
    for (const std::string& key : keys)
    {
        std::istringstream content("of " + key);
        client.putObject(key, content, key.size() + 3);
    }
    std::vector<std::string> listed;
    std::string token;
    do
    {
        for (const auto& entry : client.listObjects("", token, {"", 2}))
        {
            listed.push_back(entry.key);
        }
    } while (!token.empty());
    EXPECT_EQ(listed, keys);
    for (const std::string& key : keys)
    {
        SCOPED_TRACE(key);
        EXPECT_EQ(client.getObjectInfo(key).size, key.size() + 3);
        EXPECT_EQ(read(client, key), "of " + key);
        PartInfo part = client.getObjectParts(key).at(0);
        const std::string upload = client.createMultipartUpload(key, part.Tag);
        part.Tag = client.copyPart(key, upload, part);
        client.completeMultipartUpload(key, upload, {part});
        EXPECT_THAT(client.getObjectInfo(key).tag, testing::EndsWith("-1"));
        EXPECT_EQ(read(client, key), "of " + key);
        client.deleteObject(key);
        EXPECT_FALSE(client.getObjectInfo(key).exists);
    }
}

TEST(EndpointTest, ALookIntoALargeObjectMovesOnePart)
{
    REQUIRE_GATEWAY();
    constexpr std::size_t size = 256 << 20;
    constexpr std::streamoff middle = size / 2 + 300;
    const std::string mark(1024, 'm');
    const std::string path = testing::TempDir() + "large-object";
    {
        std::ofstream file(path, std::ios::binary); // sparse
        file.seekp(middle);
        file << mark;
    }
    std::filesystem::resize_file(path, size);
    const GatewayBucket bucket;
    const auto client = std::make_shared<S3Client>(bucket.settings());
    std::ifstream content(path, std::ios::binary);
    client->putObject("large", content, size);
    std::filesystem::remove(path);

    const auto provider = buildCloudProvider(client, FolderPolicy::MarkerObjects, false);
    const auto stream =
        provider->openReadOnlyStream(foundation::storage::provider::StorageIRI::fromUtf8("s3endpoint://test/large"));
    std::string bytes(mark.size(), '?');
    stream->seek(middle, std::ios_base::beg);
    EXPECT_EQ(stream->read(bytes.data(), static_cast<std::streamsize>(bytes.size())), mark.size());
    EXPECT_EQ(bytes, mark);
    const CallSnapshot calls = client->callSnapshot();
    const auto& reads = calls[Operation::GetObjectRange];
    EXPECT_EQ(reads.calls, 1U);
    EXPECT_LE(reads.bytes, 256U << 10U);
}

TEST(EndpointTest, ASmallObjectComesWithItsParts)
{
    REQUIRE_GATEWAY();
    const GatewayBucket bucket;
    FaultProxy proxy(bucket.settings().endpoint);
    S3Client client(bucket.settingsThrough(proxy.url()));
    S3Client other(bucket.settings());
    const auto put = [](CloudClient& writer, const std::string& bytes)
    {
        std::istringstream content(bytes);
        writer.putObject("key", content, bytes.size());
    };
    for (const auto& [size, requests] : {std::pair(1U, 1U), {15U << 10U, 1U}, {16U << 10U, 1U}, {(16U << 10U) + 1, 2U}})
    {
        SCOPED_TRACE(size);
        put(other, std::string(size, 'a'));
        proxy.setPlan({});
        client.getObjectParts("key");
        std::ostringstream out;
        client.getObjectRange("key", out, 0, size - 1);
        EXPECT_EQ(out.str(), std::string(size, 'a'));
        EXPECT_EQ(proxy.seen().size(), requests);
    }
    // It is handed out once, as what it was when it was opened, and never in place of what was written here since.
    put(client, "mine");
    client.getObjectParts("key");
    put(other, "theirs");
    EXPECT_EQ(read(client, "key"), "mine");
    EXPECT_THROW(read(client, "key"), CloudException);
    client.getObjectParts("key");
    put(client, "mine again");
    EXPECT_EQ(read(client, "key"), "mine again");
}

TEST(EndpointTest, EightThreadsOpenOneUploadWithTheirFirstPart)
{
    REQUIRE_GATEWAY();
    const GatewayBucket bucket;
    FaultProxy proxy(bucket.settings().endpoint);
    S3Client client(bucket.settingsThrough(proxy.url()));
    const std::string upload = client.createMultipartUpload("key", "");
    client.abortMultipartUpload("key", client.createMultipartUpload("key", ""));
    EXPECT_THAT(proxy.seen(), testing::IsEmpty());
    std::vector<std::thread> threads;
    for (std::size_t i = 0; i < 8; ++i)
    {
        threads.emplace_back(
            [&, i]
            {
                std::istringstream content("part");
                client.uploadPart("key", upload, {i, 4 * i, 4, ""}, content);
            });
    }
    for (std::thread& thread : threads)
    {
        thread.join();
    }
    const auto seen = proxy.seen();
    EXPECT_EQ(seen.size(), 9U);
    EXPECT_EQ(std::count_if(seen.begin(), seen.end(),
                  [](const auto& request) { return request.head.method() == http::verb::post; }),
        1);
}

TEST(EndpointTest, NoListingStopsAtAnEmptyPageOrGoesInCircles)
{
    // Prefix and token, and what comes after them. A token of two letters has an entry on its page.
    const std::map<std::string, std::string> nextOf{{"/", "a"}, {"/a", "b"}, {"/b", "end"}, {"self/", "aa"},
        {"self/aa", "aa"}, {"circle/", "a"}, {"circle/a", "b"}, {"circle/b", "a"}};
    const auto answer = [&](const Request& request)
    {
        std::smatch match;
        const std::string target(request.target());
        const std::string prefix = std::regex_search(target, match, std::regex("prefix=([a-z]*)")) ? match.str(1) : "";
        const std::string token = std::regex_search(target, match, std::regex("on-token=([a-z]*)")) ? match.str(1) : "";
        const std::string next = nextOf.at(prefix + "/" + token);
        return Reply{.body = "<ListBucketResult>" +
                             (next == "end" ? "<IsTruncated>false</IsTruncated>"
                                            : "<IsTruncated>true</IsTruncated><NextContinuationToken>" + next +
                                                  "</NextContinuationToken>") +
                             (next.size() > 1 ? "<Contents><Key>k</Key><Size>1</Size></Contents>" : "") +
                             "</ListBucketResult>"};
    };
    LoopbackServer server(answer);
    S3Client client(parseS3Url("s3://bucket?anonymous=1&endpoint=" + server.url()));
    std::string token;
    const auto page = client.listObjects("", token, {});
    ASSERT_THAT(page, testing::SizeIs(1));
    EXPECT_EQ(page.front().key, "k");
    EXPECT_EQ(token, "");
    EXPECT_EQ(server.requests().size(), 3U);
    EXPECT_THAT(client.listObjects("self/", token, {}), testing::SizeIs(1));
    EXPECT_THROW(client.listObjects("self/", token, {}), TransientException) << "a token that leads to itself";
    token.clear();
    EXPECT_THROW(client.listObjects("circle/", token, {}), TransientException) << "pages without end";
}

} // namespace

} // namespace storage::clients::s3::test
