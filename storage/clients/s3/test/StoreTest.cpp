#include "TestCalls.hpp"

#include <storage/clients/http/Hashing.hpp>
#include <storage/clients/remote/RemoteFailures.hpp>
#include <storage/clients/s3/EndpointProbe.hpp>
#include <storage/clients/s3/S3Client.hpp>
#include <storage/clients/testing/ClientCalls.hpp>
#include <storage/cloudprovider/Logger.hpp>

#include <gmock/gmock.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <utility>

// Which requests the operations of the store send, and what they make of the responses.

namespace storage::clients::s3::test
{

namespace
{

using namespace cloudprovider;
using namespace clients::test;
using testing::HasSubstr;
using testing::StartsWith;
using http = boost::beast::http::verb;

const std::string content = "content";
const std::string tag = toHex(md5(content));
constexpr std::uint64_t gibi = 1 << 30;

struct ReadRow
{
    const char* name;
    std::optional<ByteRange> range;
    Reply reply;
    std::string received;
    std::string failure = ""; // its beginning
};

Reply part(const std::string& place, const std::string& bytes)
{
    return {206, {{"ETag", '"' + tag + '"'}, {"Content-Range", place}}, bytes};
}

Reply whole(const std::string& bytes, const std::string& etag = tag, const std::string& encryption = "AES256")
{
    return {200, {{"ETag", '"' + etag + '"'}, {"x-amz-server-side-encryption", encryption}}, bytes};
}

/// @param rest  of a response that announces three bytes
Reply cut(const std::string& rest)
{
    return Reply::raw(
        "HTTP/1.1 206 OK\r\nETag: \"" + tag + "\"\r\nContent-Range: bytes 2-4/7\r\nContent-Length: 3\r\n" + rest,
        Reply::Then::Close);
}

/// The response to a HEAD request, or to GET.
Reply described(const std::string& etag, std::size_t size)
{
    return {.fields = {{"ETag", '"' + etag + '"'}, {"Last-Modified", "Sat, 01 Jan 2022 00:00:00 GMT"},
                {"Content-Length", std::to_string(size)}},
        .body = std::string(size, 'x')};
}

const ReadRow reads[] = {
    {"whole", {}, whole(content), content},
    {"range", ByteRange{2, 3}, part("bytes 2-4/7", "nte"), "nte"},
    {"rangeOverTheEnd", ByteRange{5, 9}, part("bytes 5-6/7", "nt"), "nt"},
    {"wholeInsteadOfARangeOverIt", ByteRange{0, 9}, whole(content), content},
    {"rangeBeyondTheEnd", ByteRange{7, 1}, {416}, ""},
    {"noBytesAlthoughThereAreSome", ByteRange{6, 2}, {416}, "", "Malformed response"},
    {"noBytesOfAnotherVersion", ByteRange{7, 1}, {416, {{"ETag", "\"other\""}}}, "", "Object changed"},
    {"moreThanTheRange", ByteRange{0, 3}, whole(content), "", "Unsupported Cloud operation"},
    {"damaged", {}, whole("cantent"), "cantent", "Malformed response"},
    {"wholeInsteadOfARange", ByteRange{2, 9}, whole(content), "", "Unsupported Cloud operation"},
    {"anotherRange", ByteRange{2, 3}, part("bytes 3-5/7", "ten"), "", "Malformed response"},
    {"rangeOfUnknownSize", ByteRange{2, 3}, part("bytes 2-4/*", "nte"), "", "Malformed response"},
    {"brokenOff", ByteRange{2, 3}, cut("\r\nnt"), "nt", "Store unreachable"},
    {"fewerBytesThanAnnounced", ByteRange{2, 3}, cut("Transfer-Encoding: chunked\r\n\r\n2\r\nnt\r\n0\r\n\r\n"), "nt",
        "Malformed response"},
    {"anotherVersion", {}, whole(content, "other"), "", "Object changed"},
    {"hashOfTheUnencryptedBytes", {}, whole("other", tag, "aws:kms"), "other"},
};

TEST(StoreTest, DeliversTheBytesOfTheRangeOrFails)
{
    for (const ReadRow& row : reads)
    {
        SCOPED_TRACE(row.name);
        LoopbackServer server(
            [&](const Request& request)
            {
                Reply head = described(tag, 7); // asked for when no bytes come
                head.fields.insert(head.fields.end(), row.reply.fields.begin(), row.reply.fields.end());
                return request.method() == http::head ? head : row.reply;
            });
        S3Store store(settingsFor(server));
        std::string received;
        int calls = 0;
        const auto receive = [&](const Version& version, std::string_view bytes)
        {
            EXPECT_TRUE(version.tag == tag && version.size == (row.range ? 7U : row.reply.body.size()));
            received += bytes;
            ++calls;
        };
        const std::string failure = failureOf(
            [&] {
                EXPECT_EQ(store.getObject("key", row.range, Version{tag, 7}, receive).tag, tag);
            });
        EXPECT_EQ(received, row.received);
        EXPECT_THAT(failure, StartsWith(row.failure));
        EXPECT_TRUE(failure.empty() ? row.failure.empty() && calls > 0 : !row.failure.empty()) << failure;
        EXPECT_EQ(server.requests()[0]["If-Match"], '"' + tag + '"');
    }
}

TEST(StoreTest, LooksUpItsFirstObjectByARequestWhoseFailureTellsMore)
{
    Reply beginning = described(tag, 1);
    beginning.status = 206;
    beginning.fields.emplace_back("Content-Range", "bytes 0-0/9");
    const std::tuple<Reply, std::uint64_t, std::string> rows[] = {// response to GET, size, methods with a second lookup
        {Reply::error(404, "NoSuchKey"), 0, "GH"}, {beginning, 9, "GH"}, {{416}, 7, "GHH"},
        {Reply::error(403, "InvalidObjectState"), 7, "GHH"}};
    for (const auto& [first, size, methods] : rows)
    {
        LoopbackServer server([first = first](const Request& request)
            { return request.method() == http::get ? first : described(tag, 7); });
        S3Store store(settingsFor(server));
        EXPECT_EQ(store.findObject("key").value_or(StoredObject()).version.size, size);
        EXPECT_EQ(store.findObject("key")->version.size, 7U);
        std::string sent;
        std::ranges::for_each(server.requests(), [&](const Request& request) { sent += request.method_string()[0]; });
        EXPECT_EQ(sent, methods);
    }
}

/// A store of one object of one byte.
struct ConditionalStore
{
    const Reply refusal = {}; // of requests with a condition; status 200: it knows conditions
    std::atomic<char> stored = 0;
    std::atomic<bool> losesResponse = false;
    LoopbackServer server{[this](const Request& request) { return respond(request); }};

    static std::string tagOf(char byte) { return toHex(md5(std::string(1, byte))); }

    S3Settings settings(bool isTrusted)
    {
        S3Settings settings = settingsFor(server);
        settings.capabilities.conditionalWrites = isTrusted;
        settings.capabilities.conditionalCompletion = isTrusted;
        return settings;
    }

    Reply respond(const Request& request)
    {
        if (request.method() == http::head || request.method() == http::get)
        {
            const bool isSource = request.target() == "/bucket/source"; // of copies
            return isSource      ? described(tag, 1)
                   : stored == 0 ? Reply::error(404, "NoSuchKey")
                                 : described(tagOf(stored), 1);
        }
        const std::string etag = stored == 0 ? "" : '"' + tagOf(stored) + '"';
        const auto ifNone = request["If-None-Match"];
        const auto ifSame = request["If-Match"];
        if (refusal.status != 200 && ifNone.size() + ifSame.size() > 0)
        {
            return refusal;
        }
        if ((!ifNone.empty() && stored != 0) || (!ifSame.empty() && ifSame != etag))
        {
            return stored == 0 ? Reply::error(404, "NoSuchKey") : Reply::error(412, "PreconditionFailed");
        }
        const bool isCopy = request.count("x-amz-copy-source") > 0;
        stored = request.method() == http::delete_ ? '\0'
                 : isCopy                          ? 'k'
                 : request.method() == http::put   ? request.body().at(0)
                                                   : 'c';
        const std::string newTag = tagOf(stored);
        return losesResponse.exchange(false)
                   ? Reply::raw("", Reply::Then::Close)
                   : Reply{.fields = {{"ETag", newTag}},
                         .body = isCopy ? "<CopyObjectResult><ETag>" + newTag + "</ETag></CopyObjectResult>"
                                        : "<CompleteMultipartUploadResult/>"};
    }
};

struct Write
{
    const char* name;
    char result; // stored byte; 0: none
    void (*send)(S3Store& store, const WriteCondition& condition);
};

const Write writes[] = {
    {"put", 'p', [](S3Store& store, const WriteCondition& condition) { putObject(store, "key", "p", condition); }},
    {"completion", 'c',
        [](S3Store& store, const WriteCondition& condition) {
            store.completeUpload("key", "id", {{1, "tag"}}, condition);
        }},
    {"copy", 'k',
        [](S3Store& store, const WriteCondition& condition) {
            store.copyObject({"source", {tag, 1, std::make_shared<ObjectMetadata>()}}, "key", condition);
        }},
    {"deletion", 0, [](S3Store& store, const WriteCondition& condition) { store.deleteObject("key", condition); }},
};

TEST(ConditionTest, HoldsInOneStepWhereTheStoreIsTrustedWithIt)
{
    for (const Write& write : writes)
    {
        for (const bool isTrusted : {true, false})
        {
            SCOPED_TRACE(testing::Message() << write.name << ' ' << isTrusted);
            ConditionalStore server;
            S3Store store(server.settings(isTrusted));
            const auto attempt = [&](char before, const WriteCondition& condition)
            {
                server.stored = before;
                return failureOf([&] { write.send(store, condition); });
            };
            EXPECT_THAT(attempt('a', ""), StartsWith("Object changed"));
            EXPECT_EQ(server.stored, 'a') << "If-None-Match is sent in any case";
            EXPECT_EQ(attempt(0, ""), "");
            EXPECT_EQ(server.stored, write.result);
            EXPECT_EQ(attempt('a', server.tagOf('a')), "");
            EXPECT_EQ(server.stored, write.result);
            EXPECT_EQ(attempt('b', server.tagOf('a')).empty(), !isTrusted);
            EXPECT_EQ(server.stored, isTrusted ? 'b' : write.result);
            EXPECT_EQ(attempt('b', {}), "");

            // The transport sends a request again when its connection breaks. The refusal of the second says nothing
            // about the first.
            server.stored = 'a';
            server.losesResponse = true;
            try
            {
                write.send(store, server.tagOf('a'));
                EXPECT_FALSE(isTrusted) << "was not refused";
            }
            catch (const PreconditionFailed& failure)
            {
                EXPECT_TRUE(isTrusted && failure.wasSentTwice());
            }
            EXPECT_EQ(server.stored, write.result);
        }
    }
}

TEST(ConditionTest, IsLeftOutWhereAStoreWithoutItRefusesIt)
{
    const std::pair<Reply, bool> refusals[] = {{Reply::error(501, "NotImplemented"), true},
        {Reply::error(400, "InvalidArgument"), true}, {Reply::error(409, "Conflict"), false},
        {Reply::error(400, "EntityTooSmall"), false}};
    for (const auto& [refusal, refusesCondition] : refusals)
    {
        for (const Write& write : writes)
        {
            for (const bool isTrusted : {true, false})
            {
                SCOPED_TRACE(testing::Message() << write.name << ' ' << isTrusted << refusal.body);
                ConditionalStore server{refusal};
                S3Store store(server.settings(isTrusted));
                const auto expectRemedy = [&, isNamed = refusesCondition && isTrusted](
                                              const std::string& failure, const std::string& parameter)
                { EXPECT_EQ(failure.find("remove " + parameter + "=1 ") != failure.npos, isNamed) << failure; };
                if (write.result != 0)
                {
                    const bool isStored = refusesCondition && !isTrusted;
                    const std::string failure = failureOf([&] { write.send(store, ""); });
                    EXPECT_EQ(failure.empty(), isStored);
                    expectRemedy(failure, "conditional-writes");
                    EXPECT_EQ(server.stored, isStored ? write.result : 0);
                }
                if (isTrusted)
                {
                    server.stored = 'a';
                    expectRemedy(failureOf([&] { write.send(store, server.tagOf('a')); }),
                        write.result == 'c' ? "conditional-completion" : "conditional-writes");
                    EXPECT_EQ(server.stored, 'a');
                }
            }
        }
    }
}

TEST(StoreTest, SendsTheMetadataThatItHasRead)
{
    const ObjectMetadata kept{{"content-type", "text/html"}, {"Cache-Control", "no-cache"},
        {"Content-Encoding", "gzip"}, {"Content-Disposition", "inline"}, {"Content-Language", "de"}, {"Expires", "0"},
        {"X-Amz-Storage-Class", "STANDARD_IA"}, {"x-amz-meta-author", "she"}};
    Reply object = described(tag, 7);
    object.fields.insert(object.fields.end(), kept.begin(), kept.end());
    object.fields.emplace_back("cache-control", "private"); // added by a proxy
    object.body = content;
    Reply tags{
        .body = "<Tagging><TagSet><Tag><Key>a b</Key><Value>1</Value></Tag><Tag><Key>c</Key></Tag></TagSet></Tagging>"};
    const std::string begun = "<InitiateMultipartUploadResult><UploadId>id</UploadId></InitiateMultipartUploadResult>";
    LoopbackServer server(
        [&](const Request& request)
        {
            return request.target() == "/bucket/key?tagging="                        ? tags
                   : request.method() == http::get || request.method() == http::head ? object
                   : request.count("If-None-Match") > 0 ? Reply::error(501, "NotImplemented")
                                                        : Reply{.fields = {{"ETag", "\"new\""}}, .body = begun};
        });
    S3Store store(settingsFor(server));
    std::size_t sent = 0;
    const auto write = [&](std::size_t expected, const std::string& expectedTags)
    {
        const auto opened = store.getObject("key", {}, {}, [](const Version&, std::string_view) {}).metadata;
        EXPECT_EQ(*store.findObject("key")->version.metadata, *opened);
        putObject(store, "key", "new", "", *opened);
        store.createUpload("to", {*opened, "key"});
        const auto requests = server.requests();
        EXPECT_EQ(requests.size() - std::exchange(sent, requests.size()), expected);
        for (const Request& request : {requests.back(), *(requests.rbegin() + (expected == 5 ? 1 : 2))})
        {
            const bool keepsAll =
                std::ranges::all_of(kept, [&](const auto& field) { return request[field.first] == field.second; });
            EXPECT_TRUE(keepsAll && request["x-amz-tagging"] == expectedTags) << request.method_string();
            EXPECT_EQ(request.count("Last-Modified") + request.count("x-amz-tagging-count"), 0U);
            EXPECT_EQ(request.count("Cache-Control"), 1U);
        }
    };
    write(5, "");
    object.fields.emplace_back("x-amz-tagging-count", "2");
    write(7, "a%20b=1&c=");
    tags = Reply::error(404, "NoSuchKey");
    write(7, "");
}

TEST(StoreTest, SendsTheSettingsOfObjectsWhereTheyBelong)
{
    const char* const fields[] = {"server-side-encryption", "server-side-encryption-aws-kms-key-id",
        "server-side-encryption-customer-key", "copy-source-server-side-encryption-customer-key"};
    const std::pair<void (*)(S3Store & store), const char*> rows[] = {
        {[](S3Store& store) { putObject(store, "key", "content"); }, "aws:kms a/b a2V5  "},
        {[](S3Store& store) { store.createUpload("key", {}); }, "aws:kms a/b a2V5  "},
        {[](S3Store& store) { store.findObject("key"); }, "  a2V5  "},
        {[](S3Store& store) {
             store.copyObject({"key", {"tag", 2, std::make_shared<ObjectMetadata>()}}, "to", {});
         },
            "aws:kms a/b a2V5 a2V5 "},
        {[](S3Store& store) {
             store.takePart("key", "id", 1, {"key", {"tag", 2}}, {0, 2});
         },
            "  a2V5 a2V5 "},
        {[](S3Store& store) {
             putObject(store, "key", "content", {}, {{"x-amz-tagging-count", "1"}});
         },
            "    "},
        {[](S3Store& store) { store.abortUpload("key", "id"); }, "    "},
        {[](S3Store& store) { store.listObjects("", "", {}); }, "    "}};
    LoopbackServer server(
        [](const Request&) {
            return Reply{.fields = {{"ETag", "tag"}}, .body = "<CopyPartResult><ETag>tag</ETag></CopyPartResult>"};
        });
    S3Settings settings = parseS3Url("s3://bucket?request-payer=requester&storage-class=COLD&sse=aws:kms&sse-key=a/b"
                                     "&endpoint=" +
                                     server.url());
    settings.objects.customerKey = "key";
    settings.credentials = fixedCredentials({"id", "secret", ""});
    S3Store store(settings);
    for (const auto& [call, expected] : rows)
    {
        failureOf([&, call = call] { call(store); }); // the responses are empty
        const Request request = server.requests().back();
        std::string sent;
        for (const std::string field : fields)
        {
            sent += std::string(request["x-amz-" + field]) + ' ';
        }
        EXPECT_EQ(sent, expected);
        EXPECT_THAT(std::string(request["Authorization"]), HasSubstr(";x-amz-request-payer"));
    }
    S3Client client(settings);
    conformance::put(client, "key.txt", "content");
    EXPECT_EQ(server.requests().back()["x-amz-storage-class"], "COLD");
    EXPECT_EQ(server.requests().back()["Content-Type"], "text/plain");
}

TEST(UploadTest, CopiesFromOneVersion)
{
    LoopbackServer server(
        [](const Request& request)
        {
            const bool isLarge = request["x-amz-copy-source-range"] == "bytes=1-1073741824";
            const std::string result = request.target() == "/bucket/to" ? "CopyObjectResult" : "CopyPartResult";
            return Reply{.body = '<' + result + "><ETag>\"tag\"</ETag></" + result + '>',
                .delay = std::chrono::milliseconds(isLarge ? 1500 : 0)};
        });
    S3Settings settings = settingsFor(server);
    settings.timeouts.serverSideStallWindow = std::chrono::seconds(1);
    settings.timeouts.serverSideBytesPerSecond = 1 << 24; // the window of a large copy is longer than its delay
    S3Store store(settings);
    for (const std::uint64_t size : {gibi + 1, gibi})
    {
        EXPECT_EQ(store.takePart("key", "id", 3, {"a/b c", {"old", size}}, {size - gibi, gibi}), "tag");
    }
    const ObjectMetadata metadata{{"X-Amz-Storage-Class", "COLD"}, {"b", "c"}};
    EXPECT_EQ(
        store.copyObject({"a/b c", {"old", 9, std::make_shared<ObjectMetadata>(metadata)}}, "to", std::nullopt), "tag");
    const auto requests = server.requests();
    ASSERT_EQ(requests.size(), 3U);
    for (const Request& request : requests)
    {
        EXPECT_EQ(request["x-amz-copy-source"], "/bucket/a/b%20c");
        EXPECT_EQ(request["x-amz-copy-source-if-match"], "\"old\"");
    }
    EXPECT_EQ(requests[1].count("x-amz-copy-source-range"), 0U) << "stores refuse ranges of small objects";
    EXPECT_TRUE(requests[2]["X-Amz-Storage-Class"] == "COLD" && requests[2].count("b") == 0);
    EXPECT_EQ(store.abilities("a%b").maxTakeSize, 0U);
}

TEST(UploadTest, LearnsWhatTheStoreRefuses)
{
    getLogger().setEnabledSeverities(0); // there are warnings
    const Reply copied{.body = "<CopyPartResult><ETag>\"tag\"</ETag></CopyPartResult>"};
    const Reply notImplemented = Reply::error(501, "NotImplemented");
    const Reply denied = Reply::error(403, "AccessDenied");
    const struct
    {
        Reply conditional, unconditional; // responses to copies
        const char* failure;              // its beginning
        bool canCopy;                     // afterwards
    } rows[] = {{notImplemented, notImplemented, "Unsupported", false},
        {Reply::error(405, "MethodNotAllowed"), Reply::error(405, "MethodNotAllowed"), "Unsupported", false},
        {Reply::error(400, "InvalidRequest"), Reply::error(400, "InvalidArgument"), "Unsupported", false},
        {Reply{}, Reply{}, "Unsupported", false}, {notImplemented, copied, "", true},
        {Reply::error(412, "PreconditionFailed"), copied, "", true},
        {notImplemented, Reply::error(503, "SlowDown"), "Store busy", true},
        {denied, copied, "Permission denied", true}};
    for (const auto& row : rows)
    {
        SCOPED_TRACE(row.conditional.body + row.unconditional.body);
        LoopbackServer server(
            [&](const Request& request)
            {
                return request.method() != http::put                     ? described("old", 9)
                       : request.count("x-amz-copy-source-if-match") > 0 ? row.conditional
                                                                         : row.unconditional;
            });
        S3Settings settings = settingsFor(server);
        settings.capabilities.conditionalCopies = true;
        S3Store store(settings);
        const auto failureOfCopy = [&](const std::string& version) {
            return failureOf([&] { store.takePart("key", "id", 1, {"key", {version, 9}}, {0, 9}); });
        };
        EXPECT_THAT(failureOfCopy("other"), StartsWith(row.conditional.status == 403 ? row.failure : "Object changed"));
        EXPECT_TRUE(store.abilities("key").conditionalTakes && store.abilities("key").maxTakeSize > 0);
        const std::string failure = failureOfCopy("old");
        EXPECT_TRUE(failure.starts_with(row.failure) && failure.empty() == (*row.failure == 0)) << failure;
        EXPECT_EQ(store.abilities("key").maxTakeSize > 0, row.canCopy);
        EXPECT_EQ(store.abilities("key").conditionalTakes, *row.failure != 0);
        const CopySource source{"key", {"old", 9, std::make_shared<ObjectMetadata>()}};
        EXPECT_TRUE(row.conditional.status != 200 ||
                    failureOf([&] { store.copyObject(source, "to", {}); }).starts_with("Store error"))
            << "the target may be an empty object now";
    }
    for (const char* const text : {"All non-trailing parts must have the same length.", "another reason"})
    {
        LoopbackServer server(
            [&](const Request&) {
                return Reply{
                    400, {}, "<Error><Code>InvalidPart</Code><Message>" + std::string(text) + "</Message></Error>"};
            });
        S3Store store(settingsFor(server));
        const std::string failure = failureOf([&] { store.completeUpload("key", "id", {{1, "tag"}}, {}); });
        const bool isKnown = failure.find("equal-parts=1") != std::string::npos;
        EXPECT_TRUE(isKnown == (text[0] == 'A') && isKnown == failure.starts_with("Unsupported")) << failure;
        EXPECT_EQ(store.abilities("key").equalParts, isKnown);
    }
}

TEST(EndpointProbeTest, NamesWhatItCannotRemove)
{
    const Reply other = whole("other", toHex(md5("other")));
    LoopbackServer server([&](const Request& request)
        { return request.method() == http::delete_ ? Reply::error(403, "AccessDenied") : other; });
    std::string found;
    S3Settings settings = settingsFor(server);
    settings.prefix = "p/";
    const auto report = probeEndpoint(settings, [&](const auto& feature) { found += feature.result; });
    EXPECT_THAT(found, StartsWith("no: other bytes"));
    EXPECT_THAT(report.leftovers, testing::ElementsAre(StartsWith("\"p/cloudfs-check-")));
    EXPECT_TRUE(!report.isUsable && report.capabilities == EndpointCapabilities());
}

TEST(StoreTest, DeletesManyAndNamesTheKeysThatStay)
{
    const auto error = [](const std::string& key, const std::string& code)
    { return "<Error><Key>" + key + "</Key><Code>" + code + "</Code></Error>"; };
    Reply reply{.body = "<DeleteResult>" + error("p/ a", "AccessDenied") + error("p/&lt;", "InternalError") +
                        error("p/gone", "NoSuchKey") + "</DeleteResult>"};
    LoopbackServer server([&](const Request&) { return reply; });
    S3Settings settings = settingsFor(server, fixedCredentials({"id", "secret", ""}));
    settings.prefix = "p/";
    S3Store store(settings);
    const auto failures = store.deleteObjects({" a", "<", "c", "gone"});
    const Request request = server.requests().at(0);
    EXPECT_EQ(request.target(), "/bucket/?delete=");
    EXPECT_THAT(request.body(),
        testing::EndsWith(
            "<Delete><Quiet>true</Quiet><Object><Key>p/ a</Key></Object><Object><Key>p/&lt;</Key></Object>"
            "<Object><Key>p/c</Key></Object><Object><Key>p/gone</Key></Object></Delete>"));
    EXPECT_EQ(request["Content-MD5"], toBase64(md5(request.body())));
    ASSERT_EQ(failures.size(), 2U);
    EXPECT_THAT(failureOf([&] { std::rethrow_exception(failures.at(" a")); }), StartsWith("Permission denied"));
    EXPECT_THROW(std::rethrow_exception(failures.at("<")), TransientException);
    EXPECT_THAT(failureOf([&] { store.deleteObjects({"c"}); }), HasSubstr("not to be deleted"));
    settings.prefix = "p\r/";
    EXPECT_EQ(S3Store(settings).abilities("a").maxDeletions, 0U) << "XML would have a line feed instead";
    for (const auto& [refusal, left] :
        {std::pair(Reply::error(400, "MalformedXML"), 1'000U), {Reply::error(405, "MethodNotAllowed"), 0U}})
    {
        reply = refusal;
        EXPECT_THAT(failureOf([&] { store.deleteObjects({"a"}); }), StartsWith("Unsupported"));
        EXPECT_EQ(store.abilities("a").maxDeletions, left);
    }
    const std::vector<std::string> longest(1'000, std::string(1'022, 'k'));
    EXPECT_THAT(failureOf([&] { store.deleteObjects(longest); }), HasSubstr("too long for one request"));
}

TEST(UploadTest, IsOpenUntilTheStoreSaysOtherwise)
{
    Reply reply;
    LoopbackServer server([&](const Request&) { return reply; });
    S3Settings settings = settingsFor(server);
    settings.timeouts.cleanUp = std::chrono::milliseconds(200);
    S3Store store(settings);
    EXPECT_TRUE(store.isOpen("key", "id"));
    reply = Reply::error(404, "NoSuchUpload");
    EXPECT_FALSE(store.isOpen("key", "id"));
    reply = Reply::stall();
    EXPECT_THAT(failureOf([&] { store.abortUpload("key", "id"); }), HasSubstr("timed out after"))
        << "the stall window is not for an abort";
}

TEST(UploadTest, RecognisesItsObjectsByMd5Hashes)
{
    LoopbackServer server([](const Request&) { return Reply(); });
    S3Store store(settingsFor(server));
    TextBody body(content);
    EXPECT_TRUE(store.isMadeOf("key", {{tag, 1}, {}}, body) && !store.isMadeOf("key", {{"other", 1}, {}}, body));
    const StoredObject object{{toHex(md5(md5(content) + md5(content))) + "-2", 1}, {}};
    EXPECT_TRUE(store.isMadeOf("key", object, "id", {{1, tag}, {5, tag}}));
    EXPECT_FALSE(store.isMadeOf("key", object, "id", {{1, tag}, {2, "other"}}));
}

} // namespace

} // namespace storage::clients::s3::test
