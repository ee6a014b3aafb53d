#include "Gateway.hpp"
#include "LoopbackServer.hpp"

#include <storage/clients/common/TransientException.hpp>
#include <storage/cloudprovider/CloudExceptions.hpp>

#include <gmock/gmock.h>

#include <cstdlib>
#include <functional>
#include <sstream>

// What people are told when something is wrong that repeating does not cure.

namespace storage::clients::s3::test
{

namespace
{

using namespace cloudprovider;
using namespace clients::test;

const std::string secret = "sEcReT/of+nobody";
const std::string sessionToken = "ToKeN/of+nobody";

std::string fromEnvironment(const char* name)
{
    const char* const value = std::getenv(name);
    return value == nullptr ? "" : value;
}

template <typename Exception>
bool isA(const CloudException& exception)
{
    return dynamic_cast<const Exception*>(&exception) != nullptr;
}

struct ErrorRow
{
    const char* name;
    std::function<void(S3Settings&)> adjust;
    std::function<void(S3Client&)> call;
    bool (*isRight)(const CloudException&);
    std::vector<std::string> says;     // in the detail
    std::optional<Reply> reply = {};   // of a server in the gateway's place
    const char* certificate = nullptr; // of that server: whom it certifies
};

void getInfo(S3Client& client)
{
    client.getObjectInfo("a/key");
}

void list(S3Client& client)
{
    std::string token;
    client.listObjects("a/", token, {});
}

void remove(S3Client& client)
{
    client.deleteObject("a/key");
}

void listUploads(S3Client& client)
{
    client.pendingUploads();
}

void cutRoot(S3Client& client)
{
    client.getObjectParts("");
}

void read(S3Client& client)
{
    std::ostringstream out;
    client.getObjectRange("a/key", out, 0, 9);
}

void put(S3Client& client)
{
    std::istringstream content("content");
    client.putObject("a/key", content, 7);
}

void putLongName(S3Client& client)
{
    std::istringstream content("content");
    client.putObject(std::string(1025, 'k'), content, 7);
}

std::function<void(S3Settings&)> signedBy(const std::string& keyId, const std::string& usedSecret)
{
    return [=](S3Settings& settings) { settings.credentials = fixedCredentials({keyId, usedSecret, sessionToken}); };
}

void strange(S3Settings& settings)
{
    settings.credentials = fixedCredentials({fromEnvironment("CLOUDFS_TEST_S3_STRANGER_KEY_ID"),
        fromEnvironment("CLOUDFS_TEST_S3_STRANGER_SECRET"), sessionToken});
}

void misspell(S3Settings& settings)
{
    settings.bucket = "no-such-bucket";
}

Reply reply(int status, const std::string& document)
{
    return {status, {{"Date", "Sat, 01 Jan 2022 00:00:00 GMT"}, {"x-amz-request-id", "tx-1"}}, document};
}

Reply refusal(int status, const std::string& code)
{
    return reply(status, "<Error><Code>" + code + "</Code></Error>");
}

Reply listing(const std::string& contents)
{
    return reply(200,
        "<ListBucketResult><IsTruncated>false</IsTruncated><Contents>" + contents + "</Contents></ListBucketResult>");
}

Reply uploads(const std::string& contents)
{
    return reply(200, "<ListMultipartUploadsResult>" + contents + "</ListMultipartUploadsResult>");
}

const std::string longText(100'000, 'x');
const auto asIs = [](S3Settings&) {};
const auto nobody = signedBy("AKIDNOBODY", secret);

const std::vector<ErrorRow> errors{
    {"missingKey", asIs, read, isA<ResourceNotFoundException>,
        {"getObjectRange of \"a/key\" failed", "answered 404 NoSuchKey", "request tx"}},
    {"missingBucket", misspell, getInfo, isA<InvalidLocationException>,
        {"getObjectInfo", "404 NoSuchBucket", "bucket \"no-such-bucket\"; there is no such bucket; check its name"}},
    {"listingOfAMissingBucket", misspell, list, isA<InvalidLocationException>, {"listObjects", "404 NoSuchBucket"}},
    {"putIntoAMissingBucket", misspell, put, isA<InvalidLocationException>, {"putObject", "404 NoSuchBucket"}},
    {"wrongKeyId", nobody, put, isA<InvalidCredentialsException>,
        {"putObject of \"a/key\"", "403 InvalidAccessKeyId", "request tx", "does not know the key id"}},
    {"wrongKeyIdAskedByHead", nobody, getInfo, isA<InvalidCredentialsException>, {"403 InvalidAccessKeyId"}},
    {"wrongSecret", signedBy(fromEnvironment("AWS_ACCESS_KEY_ID"), secret), list, isA<InvalidCredentialsException>,
        {"listObjects", "403 SignatureDoesNotMatch", "request tx", "the secret is not that of the key id"}},
    {"stranger", strange, put, isA<PermissionDeniedException>,
        {"putObject of \"a/key\"", "403 AccessDenied", "request tx",
            "key id " + fromEnvironment("CLOUDFS_TEST_S3_STRANGER_KEY_ID"), "ask the bucket's owner"}},
    {"strangerAskingByHead", strange, getInfo, isA<PermissionDeniedException>, {"getObjectInfo", "403 AccessDenied"}},
    {"anonymous", signedBy("", ""), list, isA<PermissionDeniedException>, {"403 AccessDenied"}},
    {"unreachable", [](S3Settings& settings) { settings.endpoint = "http://127.0.0.1:1"; }, put,
        isA<UnknownErrorException>, {"putObject of \"a/key\"", "http://127.0.0.1:1", "check the endpoint"}},
    {"longName", asIs, putLongName, isA<InvalidLocationException>, {"1024"}},
    {"clockSkew", nobody, put, isA<InvalidCredentialsException>,
        {"403 RequestTimeTooSkewed", "request tx-1", "s ahead of the store's; set it"},
        refusal(403, "RequestTimeTooSkewed")},
    {"notSupported", nobody, put, isA<UnsupportedOperationException>, {"putObject", "501 NotImplemented"},
        refusal(501, "NotImplemented")},
    {"webServer", nobody, getInfo, isA<InvalidLocationException>,
        {"getObjectInfo", "answered 404", "no answer of an S3"}, Reply{404, {}, "<html>"}},
    {"webServerAskedToRemove", nobody, remove, isA<InvalidLocationException>, {"deleteObject", "answered 404"},
        Reply{404, {}, "<html>"}},
    {"partsOfTheRoot", nobody, cutRoot, isA<ResourceNotFoundException>, {"no such object"}, Reply{200}},
    {"emptyErrorUnder200", nobody, remove, isA<UnknownErrorException>, {"deleteObject", "answered 200, request tx-1"},
        reply(200, "<Error><Message/></Error>")},
    {"changed", nobody, put, isA<UnknownErrorException>,
        {"412 PreconditionFailed, request tx-1; somebody has changed or removed the object"},
        refusal(412, "PreconditionFailed")},
    {"noTag", nobody, put, isA<TransientException>, {"answered 200, request tx-1; the answer lacks the entity tag"},
        reply(200, "")},
    {"entryWithoutKey", nobody, list, isA<TransientException>, {"200, request tx-1", "lacks Key"},
        listing("<Size>1</Size>")},
    {"entryWithoutSize", nobody, list, isA<TransientException>, {"lacks Size"}, listing("<Key>k</Key>")},
    {"entryOfNoSize", nobody, list, isA<TransientException>, {"no number as Size"},
        listing("<Key>k</Key><Size>1 MB</Size>")},
    {"uploadsWithoutMarker", nobody, listUploads, isA<TransientException>, {"lacks NextKeyMarker"},
        uploads("<IsTruncated>true</IsTruncated><NextUploadIdMarker>u</NextUploadIdMarker>")},
    {"uploadOfNoAge", nobody, listUploads, isA<TransientException>, {"no time as Initiated"},
        uploads("<IsTruncated>false</IsTruncated><Upload><Key>k</Key><UploadId>u</UploadId>"
                "<Initiated>2026-11-21T10:50:54+00:00</Initiated></Upload>")},
    {"longTexts", nobody, put, isA<UnknownErrorException>, {"answered 400 C\\x0AC", "(M\\x0AM", "request R\\x0AR"},
        Reply{400, {},
            "<Error><Code>C\nC" + longText + "</Code><Message>M\nM" + longText + "</Message><RequestId>R\nR" +
                longText + "</RequestId></Error>"}},
    {"longRegion", nobody, put, isA<InvalidLocationException>, {"R\\x0AR"},
        Reply{400, {}, "<Error><Region>R\nR" + longText + "</Region></Error>"}},
    {"certificateOfAStranger", nobody, put, isA<InvalidLocationException>, {"putObject", "certificate", "ca-file"},
        Reply(), "IP:127.0.0.1"},
};

class ErrorTest : public testing::TestWithParam<ErrorRow>
{
};

TEST_P(ErrorTest, SaysWhatIsWrongAndNoSecret)
{
    const ErrorRow& row = GetParam();
    std::optional<LoopbackServer> server;
    S3Settings settings = GatewayBucket::gatewaySettings();
    if (row.reply)
    {
        settings.bucket = "bucket";
        const auto certificate =
            row.certificate == nullptr ? std::nullopt : std::optional(TestCertificate(row.certificate));
        settings.endpoint = server.emplace([&](const Request&) { return *row.reply; }, certificate).url();
    }
    else
    {
        REQUIRE_GATEWAY();
    }
    row.adjust(settings);
    const Credentials used = settings.credentials->credentials();
    try
    {
        S3Client client(settings);
        row.call(client);
        FAIL() << "nothing was wrong";
    }
    catch (const CloudException& exception)
    {
        const std::string text = exception.what() + (": " + exception.detail().value_or(""));
        EXPECT_TRUE(row.isRight(exception)) << text;
        for (const std::string& said : row.says)
        {
            EXPECT_THAT(text, testing::HasSubstr(said));
        }
        EXPECT_LT(text.size(), 1000U);
        EXPECT_EQ(text.find('\n'), std::string::npos) << text;
        EXPECT_TRUE(used.secret.empty() || text.find(used.secret) == std::string::npos) << text;
        EXPECT_EQ(text.find(sessionToken), std::string::npos) << text;
    }
}

INSTANTIATE_TEST_SUITE_P(
    Errors, ErrorTest, testing::ValuesIn(errors), [](const auto& row) { return std::string(row.param.name); });

} // namespace

} // namespace storage::clients::s3::test
