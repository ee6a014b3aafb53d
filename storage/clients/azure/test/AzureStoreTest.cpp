#include "AzureStore.hpp"
#include "LoopbackServer.hpp"

#include <storage/clients/http/Hashing.hpp>
#include <storage/clients/remote/RemoteFailures.hpp>
#include <storage/cloudprovider/CloudExceptions.hpp>

#include <gmock/gmock.h>

#include <regex>
#include <vector>

// How requests are authorised, and what the store makes of responses. What emulators lack is tested only here.

namespace storage::clients::azure::test
{

namespace
{

using namespace cloudprovider;
using namespace clients::test;
using testing::HasSubstr;

AzureSettings settingsFor(const LoopbackServer& server, const Credentials& credentials = {})
{
    AzureSettings settings{.account = "account", .container = "container", .endpoint = server.url()};
    settings.credentials = fixedCredentials(credentials);
    return settings;
}

void put(AzureStore& store, const WriteCondition& condition = {})
{
    TextBody body("content");
    store.putObject("a/key", body, condition, {{{"x-ms-meta-b", "2"}, {"x-ms-meta-A", " 1"}}, ""});
}

void get(AzureStore& store)
{
    store.getObject("a/key", ByteRange{0, 7}, Version{"tag", 7, nullptr}, [](const auto&...) {});
}

Reply error(int status, const std::string& code)
{
    return {status, {{"x-ms-error-code", code}, {"x-ms-request-id", "tx-1"}, {"x-ms-retry-after-ms", "70"}}};
}

Reply created(const std::string& tag)
{
    return {201, {{"ETag", '"' + tag + '"'}}};
}

TEST(AzureStoreTest, AuthorisesRequestsAndCopies)
{
    const std::tuple<Credentials, std::string, std::string> rows[] = {
        {{.sas = "sig=s%2F&sp=r"}, "", "?sig=s%2F&sp=r"}, {{.bearerToken = "token"}, "Bearer token", ""}, {{}, "", ""}};
    for (const auto& [credentials, expected, query] : rows)
    {
        LoopbackServer server([](const Request&) { return created("t"); });
        AzureStore store(settingsFor(server, credentials));
        put(store);
        store.copyObject({"source", {"tag", 1, std::make_shared<ObjectMetadata>()}}, "target", {});
        const auto requests = server.requests();
        EXPECT_EQ(requests.at(0)["Authorization"], expected);
        EXPECT_EQ(requests.at(0).target(), "/container/a/key" + query);
        EXPECT_EQ(requests.at(1)["x-ms-copy-source"], server.url() + "/container/source" + query);
        EXPECT_EQ(requests.at(1)["x-ms-copy-source-authorization"], expected);
        EXPECT_EQ(requests.at(1)["x-ms-source-if-match"], "\"tag\"");
        AzureSettings insecure = settingsFor(server, credentials);
        insecure.endpoint = "http://192.0.2.1";
        AzureStore other(insecure);
        EXPECT_EQ(other.abilities("k").maxCopySize + other.abilities("k").maxTakeSize, 0U) << "they need a signature";
        EXPECT_GT(store.abilities("k").maxCopySize, 0U);
        if (!credentials.isAnonymous())
        {
            EXPECT_THROW(put(other), InvalidCredentialsException);
        }
    }
}

// The text is laid out as the documentation of the service shows it for a request of this kind.
TEST(AzureStoreTest, SignsAllFieldsOfTheServiceTheResourceAndTheParameters)
{
    LoopbackServer server([](const Request&) { return created("t"); });
    const std::string key = "a key";
    AzureStore store(settingsFor(server, {.accountKey = toBase64(key)}));
    put(store, "");
    const auto request = server.requests().at(0);
    const std::string text = "PUT\n\n\n7\n" + toBase64(md5("content")) + "\n\n\n\n\n*\n\n\nx-ms-blob-type:BlockBlob\n" +
                             "x-ms-date:" + std::string(request["x-ms-date"]) +
                             "\nx-ms-meta-a:1\nx-ms-meta-b:2\nx-ms-version:2021-12-02\n/account/container/a/key";
    EXPECT_EQ(request["Authorization"], "SharedKey account:" + toBase64(hmacSha256(key, text)));
}

template <typename Exception>
bool isA(const CloudException& exception)
{
    const bool isTransient = dynamic_cast<const TransientException*>(&exception) != nullptr;
    return dynamic_cast<const Exception*>(&exception) != nullptr &&
           isTransient == std::is_base_of_v<TransientException, Exception>;
}

bool isBusy(const CloudException& exception)
{
    const auto* const transient = dynamic_cast<const TransientException*>(&exception);
    return transient != nullptr && transient->retryAfter() == std::chrono::milliseconds(70);
}

TEST(AzureStoreTest, TranslatesFailures)
{
    const auto create = [](AzureStore& store) { put(store, ""); };
    const auto find = [](AzureStore& store) { store.findObject("a/key"); };
    const auto list = [](AzureStore& store) { store.listObjects("", "", {}); };
    const auto write = [](AzureStore& store) { put(store); };
    const auto copy = [](AzureStore& store) {
        store.copyObject({"k", {"tag", 1, std::make_shared<ObjectMetadata>()}}, "k2", {});
    };
    const auto open = [](AzureStore& store) { store.createUpload("k", {}); };
    const auto remove = [](AzureStore& store) { store.deleteObject("a/key", {}); };
    const std::vector<std::pair<std::string, std::string>> right = {
        {"ETag", "\"tag\""}, {"Content-Range", "bytes 0-6/9"}};
    auto corrupt = right;
    corrupt.emplace_back("Content-MD5", toBase64(md5("others.")));
    auto other = right;
    other.at(0).second = "\"other\"";
    const struct
    {
        Reply reply;
        std::function<void(AzureStore&)> call;
        bool (*isRight)(const CloudException&);
        const char* expected;
    } rows[] = {{error(404, "BlobNotFound"), get, isA<ResourceNotFoundException>, "request tx-1"},
        {error(404, "ContainerNotFound"), find, isA<InvalidLocationException>, "container \"container\""},
        {{404, {}, "<html>"}, remove, isA<InvalidLocationException>, "not the response of an Azure"},
        {error(403, "AuthenticationFailed"), write, isA<InvalidCredentialsException>, "clock"},
        {error(401, "NoAuthenticationInformation"), list, isA<InvalidCredentialsException>, "no credentials were"},
        {error(403, "AuthorizationPermissionMismatch"), write, isA<PermissionDeniedException>, "role"},
        {error(412, "ConditionNotMet"), get, isA<PreconditionFailed>, "somebody has changed"},
        {error(409, "BlobAlreadyExists"), create, isA<PreconditionFailed>, "somebody has changed"},
        {error(412, "CannotVerifyCopySource"), copy, isA<PreconditionFailed>, "somebody has changed"},
        {error(403, "CannotVerifyCopySource"), copy, isA<PermissionDeniedException>, "read the source"},
        {error(400, "InvalidBlockList"), write, isA<UnknownErrorException>, "somebody else has written"},
        {{200, {},
             "<BlockList><UncommittedBlocks><Block><Name>YWJj</Name><Size>1</Size></Block></UncommittedBlocks></"
             "BlockList>"},
            open, isA<UnknownErrorException>, "another program has block ids of 3"},
        {error(412, "LeaseIdMissing"), write, isA<UnknownErrorException>, "holds a lease"},
        {error(409, "SnapshotsPresent"), remove, isA<UnknownErrorException>, "has snapshots"},
        {error(503, "ServerBusy"), list, isBusy, "503 ServerBusy"},
        {error(429, "TooManyRequests"), write, isBusy, "429"}, {{206, right, "content"}, get, nullptr, ""},
        {{206, corrupt, "content"}, get, isA<CorruptContent>, "hash"},
        {{206, other, "content"}, get, isA<PreconditionFailed>, "changed"},
        {{206, right, "shorter"},
            [](AzureStore& store) {
                store.getObject("k", ByteRange{1, 7}, {}, {});
            },
            isA<UnusableResponse>, "other bytes"},
        {{200, {}, "<EnumerationResults><Blobs/></EnumerationResults>"}, list, isA<UnusableResponse>, "NextMarker"},
        {{200, {}, "<html/>"}, list, isA<UnusableResponse>, "List Blobs"}};
    for (const auto& row : rows)
    {
        SCOPED_TRACE(std::to_string(row.reply.status) + " " + row.expected);
        LoopbackServer server([&](const Request&) { return row.reply; });
        AzureStore store(settingsFor(server));
        try
        {
            row.call(store);
            EXPECT_EQ(row.isRight, nullptr);
        }
        catch (const CloudException& exception)
        {
            EXPECT_TRUE(row.isRight != nullptr && row.isRight(exception)) << exception.what();
            EXPECT_THAT(exception.what() + exception.detail().value_or(""), HasSubstr(row.expected));
        }
    }
}

TEST(AzureStoreTest, ListsDecodedNamesInOrderAndNoDirectories)
{
    LoopbackServer server(
        [](const Request&)
        {
            return Reply{.body =
                             "<EnumerationResults><Blobs><Blob><Name Encoded=\"true\">b%01</Name><Properties>"
                             "<Content-Length>3</Content-Length></Properties></Blob><Blob><Name>d</Name><Properties>"
                             "<ResourceType>directory</ResourceType></Properties></Blob><BlobPrefix><Name>a/</Name>"
                             "</BlobPrefix></Blobs><NextMarker>next</NextMarker></EnumerationResults>"};
        });
    AzureStore store(settingsFor(server));
    const ListingPage page = store.listObjects("", "", {});
    ASSERT_EQ(page.entries.size(), 2U);
    EXPECT_EQ(page.entries[0].key, "a/");
    EXPECT_EQ(page.entries[1].key, "b\x01");
    EXPECT_EQ(page.nextToken, "next");
}

/// A blob of two blocks with ids of 15 bytes, as another tool has written it. The first completion loses its response.
struct Blob
{
    std::string tag = "old";
    std::string list = "<CommittedBlocks><Block><Name>Zmlyc3QgYmxvY2sgLi4u</Name><Size>100</Size></Block><Block><Name>"
                       "c2Vjb25kIGJsb2NrIC4u</Name><Size>50</Size></Block></CommittedBlocks>";

    Reply operator()(const Request& request)
    {
        if (request.method() == boost::beast::http::verb::get)
        {
            return {200, {{"ETag", '"' + tag + '"'}}, "<BlockList>" + list + "</BlockList>"};
        }
        if (request.target().find("comp=blocklist") == std::string_view::npos)
        {
            return {201};
        }
        tag = "new";
        list = "<CommittedBlocks>" + std::regex_replace(request.body(), std::regex("<(Unc|C)ommitted>([^<]*)"),
                                         "<Block><Name>$2</Name><Size>1</Size></Block>",
                                         std::regex_constants::format_no_copy);
        list += "</CommittedBlocks><UncommittedBlocks><Block><Name>b3RoZXIncyBibG9jay4u</Name><Size>1</Size></Block>"
                "</UncommittedBlocks>";
        return Reply::raw("", Reply::Then::Close);
    }
};

TEST(AzureStoreTest, ListsWholeBlocksAgainAndFindsTheBlobOfALostResponse)
{
    Blob blob;
    LoopbackServer server([&](const Request& request) { return blob(request); });
    AzureStore store(settingsFor(server));
    const CopySource source{"k", {"old", 150, nullptr}};
    const std::string id = store.createUpload("k", {{{"x-ms-encryption-scope", "scope"}}, ""});
    EXPECT_TRUE(store.isOpen("k", id));
    const std::size_t sentBefore = server.requests().size();
    const std::string run = store.takeWholeParts("k", id, 1, source.version, {0, 100});
    EXPECT_EQ(server.requests().size(), sentBefore) << "no request";
    const std::string copied = store.takePart("k", id, 2, source, {100, 20});
    EXPECT_EQ(server.requests().back()["x-ms-source-range"], "bytes=100-119");
    EXPECT_EQ(server.requests().back()["x-ms-encryption-scope"], "scope");
    EXPECT_EQ(copied.size(), 20U) << "as long as the others";
    TextBody sent("sent");
    const std::string again = store.uploadPart("k", id, 2, sent);
    EXPECT_GT(fromBase64(again), fromBase64(copied)) << "an earlier request may take effect later";
    EXPECT_GT(fromBase64(store.uploadPart("k", id, 3, sent)), fromBase64(again)) << "in the order of the parts";
    EXPECT_THROW(store.completeUpload("k", id, {{1, run}}, "other"), PreconditionFailed);
    EXPECT_EQ(store.partEnds("k", source.version), (std::vector<std::uint64_t>{100, 150}));
    const Blob before = blob;
    blob.tag = "changed";
    blob.list = "<UncommittedBlocks><Block><Name>" + again + "</Name><Size>1</Size></Block></UncommittedBlocks>";
    EXPECT_TRUE(store.isOpen("k", id)) << "its blocks are still there";
    blob.list = "";
    EXPECT_THAT(store.partEnds("k", source.version), testing::IsEmpty()) << "whatever its tag is";
    blob = before;
    blob.tag = "new";
    const std::string all = store.takeWholeParts("k", id, 1, source.version, {0, 150});
    EXPECT_FALSE(store.isMadeOf("k", {{"new", 150, nullptr}, {}}, id, {{1, all}})) << "others may have listed them";
    blob = before;
    const std::vector<NumberedTag> parts{{1, run}, {2, copied}};
    EXPECT_THROW(store.completeUpload("k", id, parts, {}), TransientException);
    const Request completion = server.requests().back();
    EXPECT_EQ(completion["If-Match"], "\"old\"") << "the blocks are those of this version";
    EXPECT_EQ(completion.body(),
        "<?xml version=\"1.0\"?><BlockList><Committed>Zmlyc3QgYmxvY2sgLi4u</Committed><Uncommitted>" + copied +
            "</Uncommitted></BlockList>");
    EXPECT_FALSE(store.isMadeOf("k", {source.version, {}}, id, parts));
    EXPECT_FALSE(store.isOpen("k", id)) << "the blocks are another program's";
    EXPECT_TRUE(store.isMadeOf("k", {{"new", 120, nullptr}, {}}, id, parts));
    EXPECT_FALSE(store.isOpen("k", id)) << "isMadeOf() has ended it";
    EXPECT_THROW(store.partEnds("k", source.version), PreconditionFailed);
}

TEST(AzureStoreTest, EveryPieceOfALargeRangeHasAHash)
{
    const std::string object = std::string(4 << 20, 'a') + std::string(4 << 20, 'b') + "c";
    LoopbackServer server(
        [&](const Request& request)
        {
            const std::string range(request["x-ms-range"]); // bytes=FIRST-LAST
            const std::size_t first = std::stoul(range.substr(6));
            const std::string bytes = object.substr(first, std::stoul(range.substr(range.find('-') + 1)) - first + 1);
            EXPECT_EQ(request["x-ms-range-get-content-md5"], "true");
            EXPECT_EQ(request["If-Match"], first == 0 ? "" : "\"tag\"");
            return Reply{206,
                {{"ETag", "\"tag\""}, {"Content-MD5", toBase64(md5(bytes))},
                    {"Content-Range", "bytes " + range.substr(6) + "/" + std::to_string(object.size())}},
                bytes};
        });
    AzureStore store(settingsFor(server));
    std::string received;
    store.getObject(
        "k", ByteRange{0, object.size()}, {}, [&](const Version&, std::string_view bytes) { received += bytes; });
    EXPECT_TRUE(received == object);
    EXPECT_EQ(server.requests().size(), 3U);
}

TEST(AzureStoreTest, KnowsItsOwnBlobByItsHash)
{
    LoopbackServer server(
        [](const Request&) {
            return Reply{200, {{"ETag", "\"new\""}, {"Content-MD5", toBase64(md5("content"))}}, "content"};
        });
    AzureStore store(settingsFor(server));
    TextBody own("content");
    TextBody others("others.");
    EXPECT_TRUE(store.isMadeOf("key", {{"new", 7, nullptr}, {}}, own));
    EXPECT_FALSE(store.isMadeOf("key", {{"new", 7, nullptr}, {}}, others));
    EXPECT_FALSE(store.isMadeOf("key", {{"other", 7, nullptr}, {}}, own));
}

TEST(AzureStoreTest, DoesNotChangeABlobOfAnotherKind)
{
    LoopbackServer server([](const Request&) { return created("t"); });
    AzureStore store(settingsFor(server));
    TextBody body("content");
    EXPECT_THROW(store.putObject("k", body, {}, {{{"x-ms-blob-type", "PageBlob"}}, "k"}), UnknownErrorException);
    EXPECT_THROW(store.createUpload("k", {{{"x-ms-blob-type", "AppendBlob"}}, "k"}), UnknownErrorException);
    EXPECT_EQ(server.requests().size(), 0U);
}

} // namespace

} // namespace storage::clients::azure::test
