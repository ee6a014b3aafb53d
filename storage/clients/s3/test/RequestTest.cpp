#include "TestCalls.hpp"

#include <storage/clients/common/TransientException.hpp>
#include <storage/clients/http/Hashing.hpp>
#include <storage/clients/remote/RemoteFailures.hpp>

#include <gmock/gmock.h>

#include <atomic>
#include <filesystem>
#include <map>
#include <tuple>

// How requests are signed and sent, and what the store makes of responses.

namespace storage::clients::s3::test
{

namespace
{

using namespace cloudprovider;
using namespace clients::test;
using testing::HasSubstr;

const std::string secret = "sEcReT/of+nobody";
const std::string sessionToken = "ToKeN/of+nobody";
const auto nobody = fixedCredentials({"AKIDNOBODY", secret, sessionToken});

/// Counts the requests for new credentials.
struct CountingCredentials : CredentialsSource
{
    Credentials credentials() override { return nobody->credentials(); }
    void refresh() override { ++refreshed; }
    std::atomic<int> refreshed = 0;
};

void put(S3Store& store)
{
    putObject(store, "a/key", "content");
}

const auto accept = [](const Request&) { return Reply{.fields = {{"ETag", "\"tag\""}}}; };

TEST(RequestTest, CarriesSignatureOrHash)
{
    LoopbackServer server(accept);
    S3Store known(settingsFor(server, nobody));
    putObject(known, "a/key", "content", "");
    S3Store anonymous(settingsFor(server, anonymousCredentials()));
    put(anonymous);
    const auto requests = server.requests();
    EXPECT_THAT(std::string(requests.at(0)["Authorization"]),
        HasSubstr("SignedHeaders=host;if-none-match;x-amz-content-sha256;x-amz-date;x-amz-security-token,"));
    EXPECT_EQ(requests.at(0)["x-amz-security-token"], sessionToken);
    EXPECT_EQ(requests.at(1)["Authorization"], "");
    EXPECT_EQ(requests.at(1)["Content-MD5"], toBase64(md5("content")));
    anonymous.deleteObject("a/./../b//c +%2F", {});
    EXPECT_EQ(server.requests().back().target(), "/bucket/a/./../b//c%20%2B%252F");
}

TEST(RequestTest, HasTheAddressOfItsBucketOrAccessPoint)
{
    const std::string point = "arn:aws-cn:s3:cn-north-1:123456789012:accesspoint/test";
    const std::string object = "arn%3Aaws-cn%3As3%3Acn-north-1%3A123456789012%3Aaccesspoint/test/object/";
    const std::tuple<std::string, std::string, std::string> rows[] = {// URL, address of a key, source of a copy
        {"bucket?region=us-gov-west-1", "bucket.s3.us-gov-west-1.amazonaws.com/k", "/bucket/k"},
        {"a.b/5%25%20+/?region=cn-north-1", "s3.cn-north-1.amazonaws.com.cn/a.b/5%25%20%2B/k", "/a.b/5%25%20%2B/k"},
        {point + "/p?region=r", "test-123456789012.s3-accesspoint.cn-north-1.amazonaws.com.cn/p/k", object + "p/k"},
        {point + "?endpoint=https://host/x", "test-123456789012.host/x/k", object + "k"}};
    for (const auto& [url, place, source] : rows)
    {
        const BucketAddress address(parseS3Url("s3://" + url));
        EXPECT_EQ(address.origin() + address.path("k"), "https://" + place);
        EXPECT_EQ(address.copySource("k"), source);
    }
}

TEST(RequestTest, IsRepeatedOnceForAnotherRegionNewCredentialsOrMd5)
{
    const std::vector<std::pair<std::string, std::string>> elsewhere = {
        {"x-amz-bucket-region", "elsewhere"}, {"Location", "/another"}};
    for (const Reply& first :
        {Reply{301, elsewhere}, Reply{307, elsewhere}, Reply{400, {}, "<Error><Region>elsewhere</Region></Error>"},
            Reply::error(400, "ExpiredToken"), Reply::error(400, "TokenRefreshRequired"),
            Reply::error(400, "InvalidToken"),
            Reply{400, {}, "<Error><Message>Content-MD5 OR x-amz-checksum- HTTP header is required</Message></Error>"}})
    {
        for (const bool isHelpful : {true, false})
        {
            SCOPED_TRACE(first.body + std::to_string(first.status) + (isHelpful ? "" : " again"));
            std::atomic<int> count = 0;
            LoopbackServer server(
                [&](const Request& request) { return ++count == 1 || !isHelpful ? first : accept(request); });
            const auto credentials = std::make_shared<CountingCredentials>();
            S3Store store(settingsFor(server, credentials));
            EXPECT_EQ(failureOf([&] { put(store); }).empty(), isHelpful);
            const std::string signature(server.requests().back()["Authorization"]);
            EXPECT_EQ(server.requests().size(), 2U);
            const bool isMoved = signature.find("/elsewhere/s3/") != signature.npos;
            const bool hasMd5 = server.requests().back()["Content-MD5"] == toBase64(md5("content"));
            EXPECT_EQ(credentials->refreshed + isMoved + hasMd5, 1);
            EXPECT_EQ(failureOf([&] { put(store); }).empty(), isHelpful);
            EXPECT_EQ(server.requests().size(), isHelpful || isMoved || hasMd5 ? 3U : 4U) << "it is remembered";
        }
    }
}

template <typename Exception>
bool isA(const CloudException& exception)
{
    const bool isTransient = dynamic_cast<const TransientException*>(&exception) != nullptr;
    return dynamic_cast<const Exception*>(&exception) != nullptr &&
           isTransient == std::is_base_of_v<TransientException, Exception>;
}

bool isBroken(const CloudException& exception)
{
    return isA<TransientException>(exception) && !isA<UnusableResponse>(exception);
}

template <int seconds>
bool isBusyFor(const CloudException& exception)
{
    const auto* const transient = dynamic_cast<const TransientException*>(&exception);
    return transient != nullptr && transient->retryAfter() == std::chrono::seconds(seconds);
}

struct ErrorRow
{
    const char* name;
    void (*call)(S3Store&);
    bool (*isRight)(const CloudException&);
    std::string expected; // in the message
    Reply reply;
    std::shared_ptr<CredentialsSource> credentials = nobody;
    std::string endpointPath = "";
};

const auto find = [](S3Store& store) { store.findObject("a/key"); };
const auto create = [](S3Store& store) { putObject(store, "a/key", "content", ""); };
const auto listUploads = [](S3Store& store) { store.listUploads(""); };
const auto isOpen = [](S3Store& store) { store.isOpen("a/key", "id"); };
const auto remove = [](S3Store& store) { store.deleteObject("a/key", {}); };
const auto list = [](S3Store& store) { store.listObjects("a/", "", {}); };
const auto readRange = [](S3Store& store) { store.getObject("a/key", ByteRange{0, 7}, {}, [](const auto&...) {}); };

Reply page(const std::string& kind, const std::string& contents)
{
    return {.body = '<' + kind + '>' + contents + "<IsTruncated>false</IsTruncated></" + kind + '>'};
}

const std::string longText = "\n" + std::string(100'000, 'x');

const ErrorRow errors[] = {
    {"missingKey", readRange, isA<ResourceNotFoundException>, "request tx-1", Reply::error(404, "NoSuchKey")},
    {"missingBucket", find, isA<InvalidLocationException>, "bucket \"bucket\"; ", Reply::error(404, "NoSuchBucket")},
    {"endpointWithTheBucket", put, isA<InvalidLocationException>, "the endpoint's path \"/bucket\"",
        Reply::error(404, "NoSuchBucket"), nobody, "/bucket/"},
    {"uploadInAMissingBucket", isOpen, isA<InvalidLocationException>, "404", Reply::error(404, "NoSuchBucket")},
    {"denied", put, isA<PermissionDeniedException>, "; key id AKIDNOBODY", Reply::error(403, "AccessDenied")},
    {"archived", readRange, isA<UnknownErrorException>, "restore it", Reply::error(403, "InvalidObjectState")},
    {"wrongSecret", list, isA<InvalidCredentialsException>, "the secret", Reply::error(403, "SignatureDoesNotMatch")},
    {"clockSkew", put, isA<InvalidCredentialsException>, "s ahead of", Reply::error(403, "RequestTimeTooSkewed")},
    {"anonymous", put, isA<InvalidCredentialsException>, "no credentials were given",
        Reply::error(403, "InvalidAccessKeyId"), anonymousCredentials()},
    {"notSupported", put, isA<UnsupportedOperationException>, "501", Reply::error(501, "NotImplemented")},
    {"tooMany", put, isBusyFor<7>, "429", {429, {{"Retry-After", "7"}}}},
    {"internalError", put, isBusyFor<0>, "500", {500, {{"Retry-After", "Sat, 01 Jan 2022 00:00:00 GMT"}}}},
    {"noSpace", put, isA<UnknownErrorException>, "507", {507}},
    {"webServer", find, isA<InvalidLocationException>, "not the response of an S3", {404, {}, "<html>"}},
    {"webServerAskedToDelete", remove, isA<InvalidLocationException>, "returned 404", {404, {}, "<html>"}},
    {"emptyErrorUnder200", remove, isA<UnknownErrorException>, "returned 200", {200, {}, "<Error><Message/></Error>"}},
    {"changed", create, isA<PreconditionFailed>,
        "putObject of \"a/key\" failed: http://127.0.0.1:", Reply::error(412, "PreconditionFailed")},
    {"withoutCondition", put, isA<UnknownErrorException>, "Store error", Reply::error(412, "PreconditionFailed")},
    {"damagedRangeOfTheWhole", readRange, isA<CorruptContent>, "the bytes do not match",
        {206, {{"ETag", '"' + toHex(md5("content")) + '"'}, {"Content-Range", "bytes 0-6/7"}}, "cantent"}},
    {"noTag", put, isA<UnusableResponse>, "lacks the entity tag", {200, {}, ""}},
    {"corruptedInTransit", put, isA<TransientException>, "corrupted", Reply::error(400, "XAmzContentSHA256Mismatch")},
    {"emptyListing", list, isA<UnusableResponse>, "lacks IsTruncated", {200, {}, "<ListBucketResult/>"}},
    {"pageOfAnotherKind", listUploads, isA<UnusableResponse>, "listing the open uploads failed",
        page("ListBucketResult", "")},
    {"truncatedListing", list, isBroken, "is truncated", {200, {}, "<ListBucketResult><IsTruncated>true"}},
    {"noHttp", put, isA<UnusableResponse>, "check the endpoint", Reply::raw("SSH-2.0-x\r\n", Reply::Then::Close)},
    {"entryOfNoSize", list, isA<TransientException>, "Size in the response is not a number",
        page("ListBucketResult", "<Contents><Key>k</Key><Size>1 MB</Size></Contents>")},
    {"uploadsWithoutMarker", listUploads, isA<TransientException>, "lacks NextKeyMarker",
        page(
            "ListMultipartUploadsResult", "<IsTruncated>true</IsTruncated><NextUploadIdMarker>u</NextUploadIdMarker>")},
    {"uploadOfNoAge", listUploads, isA<TransientException>, "Initiated in the response is not a time",
        page("ListMultipartUploadsResult",
            "<Upload><Key>k</Key><UploadId>u</UploadId><Initiated>2026-11-21T10:50:54+00:00</Initiated></Upload>")},
    {"longTexts", put, isA<UnknownErrorException>, "returned 400 C\\x0Axx",
        {400, {},
            "<Error><Code>C" + longText + "</Code><Message>" + longText + "</Message><RequestId>" + longText +
                "</RequestId></Error>"}},
    {"longRegion", put, isA<InvalidLocationException>, "R\\x0Axx",
        {400, {}, "<Error><Region>R" + longText + "</Region></Error>"}},
};

TEST(RequestTest, ReportsErrorsWithTheirReasonAndWithoutSecrets)
{
    for (const ErrorRow& row : errors)
    {
        SCOPED_TRACE(row.name);
        Reply reply = row.reply;
        reply.fields.insert(
            reply.fields.end(), {{"Date", "Sat, 01 Jan 2022 00:00:00 GMT"}, {"x-amz-request-id", "tx-1"}});
        LoopbackServer server([&](const Request&) { return reply; });
        S3Settings settings = settingsFor(server, row.credentials);
        settings.endpoint += row.endpointPath;
        S3Store store(settings);
        try
        {
            row.call(store);
            ADD_FAILURE() << "nothing was wrong";
        }
        catch (const CloudException& exception)
        {
            const std::string text = textOf(exception);
            EXPECT_TRUE(row.isRight(exception)) << text;
            EXPECT_THAT(text, HasSubstr(row.expected));
            EXPECT_LT(text.size(), 1000U);
            EXPECT_THAT(
                text, testing::Not(testing::AnyOf(HasSubstr("\n"), HasSubstr(secret), HasSubstr(sessionToken))));
        }
    }
}

TEST(RequestTest, TrustsTheAuthoritiesGivenAndNoOther)
{
    const std::string path = testing::TempDir() + "authority" + std::to_string(::getpid());
    LoopbackServer server(accept, path);
    const auto failure = [&](const std::string& authorities, const std::string& host = "127.0.0.1")
    {
        S3Settings settings = settingsFor(server, nobody);
        settings.authorities = authorities;
        settings.endpoint.replace(settings.endpoint.find("127.0.0.1"), 9, host);
        S3Store store(settings);
        return failureOf([&] { put(store); });
    };
    EXPECT_EQ(failure(path), "");
    EXPECT_THAT(failure(""), HasSubstr("ca-file"));
    EXPECT_THAT(failure(path, "localhost"), HasSubstr("Certificate refused"));
    EXPECT_THAT(failure(path + "/none"), HasSubstr("Invalid store"));
    std::filesystem::remove(path);
}

TEST(RequestTest, ReadsKeysOfBlanksAndTheTokenOfTheNextPage)
{
    const std::string truncated = "<IsTruncated>true</IsTruncated>";
    std::map<std::string, std::string> pages = {
        {"/bucket/?continuation-token=a%2Fb&delimiter=%2F&encoding-type=url&list-type=2&max-keys=9&prefix=%20",
            "<ListBucketResult><NextContinuationToken>b/c</NextContinuationToken><Contents><Key> \r</Key><Size>1</Size>"
            "</Contents><CommonPrefixes><Prefix> /</Prefix></CommonPrefixes>" +
                truncated + "</ListBucketResult>"},
        {"/bucket/?uploads=", "<ListMultipartUploadsResult><NextKeyMarker>a/b</NextKeyMarker><NextUploadIdMarker>u/1"
                              "</NextUploadIdMarker>" +
                                  truncated + "</ListMultipartUploadsResult>"},
        {"/bucket/?key-marker=a%2Fb&upload-id-marker=u%2F1&uploads=",
            "<ListMultipartUploadsResult><IsTruncated>false</IsTruncated></ListMultipartUploadsResult>"}};
    LoopbackServer server([&](const Request& request) { return Reply{.body = pages[std::string(request.target())]}; });
    S3Store store(settingsFor(server, nobody));
    const ListingPage page = store.listObjects(" ", "a/b", {.delimiter = "/", .maxKeys = 9});
    EXPECT_EQ(page.nextToken, "b/c");
    EXPECT_TRUE(page.entries.size() == 2 && page.entries[0].key == " \r" && page.entries[1].key == " /");
    EXPECT_EQ(store.listUploads(store.listUploads("").nextToken).nextToken, "");
}

TEST(RequestTest, StaysBelowThePrefixAndDoesNotShowIt)
{
    const std::string upload = "<UploadId>u</UploadId><Initiated>2026-11-21T10:50:54Z</Initiated></Upload>";
    std::map<std::string, Reply> replies = {
        {"/bucket/?encoding-type=url&list-type=2&prefix=p%25%2Fa",
            page("ListBucketResult", "<Contents><Key>p%/</Key><Size>0</Size></Contents><CommonPrefixes><Prefix>p%/a/"
                                     "</Prefix></CommonPrefixes>")},
        {"/bucket/?prefix=p%25%2F&uploads=",
            page("ListMultipartUploadsResult", "<Upload><Key>q</Key>" + upload + "<Upload><Key>p%/a</Key>" + upload)}};
    LoopbackServer server([&](const Request& request) { return replies[std::string(request.target())]; });
    S3Settings settings = settingsFor(server, nobody);
    settings.prefix = "p%/";
    S3Store store(settings);
    EXPECT_EQ(store.listObjects("a", "", {}).entries.at(0).key, "a/") << "p%/ itself is not listed";
    EXPECT_EQ(store.listUploads("").uploads.at(0).key, "a") << "q is not listed";
    EXPECT_THAT(failureOf([&] { putObject(store, "a", "content"); }), HasSubstr("putObject of \"a\" failed"));
    EXPECT_EQ(store.abilities("a").maxTakeSize, 0U);
    EXPECT_THAT(failureOf([&] { putObject(store, std::string(1'022, 'k'), "content"); }), HasSubstr("at most 1024"));
}

} // namespace

} // namespace storage::clients::s3::test
