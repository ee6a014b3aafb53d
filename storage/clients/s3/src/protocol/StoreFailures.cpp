#include "StoreFailures.hpp"

#include <storage/clients/common/KeyRules.hpp>
#include <storage/clients/common/TransientException.hpp>
#include <storage/clients/http/ResponseFields.hpp>
#include <storage/cloudprovider/CloudExceptions.hpp>

#include <boost/algorithm/string/predicate.hpp>

#include <fmt/format.h>

#include <array>
#include <optional>
#include <string_view>

namespace storage::clients::s3
{

using namespace cloudprovider;

namespace
{

using Meaning = FailureMeaning;

using Row = KnownFailure;

constexpr std::string_view checkCredentials = "check the credentials in the environment and the shared files";

constexpr std::array rows{
    Row{"NoSuchKey", Meaning::NotFound, ""},
    Row{"NoSuchUpload", Meaning::NotFound, "the upload was already completed or aborted"},
    Row{"NoSuchBucket", Meaning::BadLocation, "there is no such bucket; check its name, or create it first"},
    Row{"InvalidBucketName", Meaning::BadLocation, "check the name of the bucket"},
    Row{"InvalidObjectName", Meaning::BadLocation, "the store does not accept this name"},
    Row{"KeyTooLongError", Meaning::BadLocation, "the name is too long"},
    Row{"PermanentRedirect", Meaning::BadLocation, "use the bucket's own endpoint and region"},
    Row{"TemporaryRedirect", Meaning::BadLocation, "use the bucket's own endpoint and region"},
    Row{"AuthorizationHeaderMalformed", Meaning::BadLocation, "check the region"},
    Row{"InvalidAccessKeyId", Meaning::BadCredentials, "the store does not know the key id"},
    Row{"SignatureDoesNotMatch", Meaning::BadCredentials,
        "the secret does not belong to the key id, or something between here and the store changes the request"},
    Row{"ExpiredToken", Meaning::BadCredentials, "the session has expired; log in again"},
    Row{"TokenRefreshRequired", Meaning::BadCredentials, "the session has expired; log in again"},
    Row{"InvalidToken", Meaning::BadCredentials, "check the session token"},
    Row{"MissingSecurityHeader", Meaning::BadCredentials, checkCredentials},
    Row{"RequestTimeTooSkewed", Meaning::ClockSkew, ""},
    Row{"RequestExpired", Meaning::ClockSkew, ""},
    Row{"AccessDenied", Meaning::Denied, "ask the bucket's owner for permission"},
    Row{"InvalidObjectState", Meaning::Archived, "the object is archived; restore it first"},
    Row{"AllAccessDisabled", Meaning::Denied, ""},
    Row{"AccountProblem", Meaning::Denied, ""},
    Row{"QuotaExceeded", Meaning::Denied, "the quota is used up"},
    Row{"MethodNotAllowed", Meaning::NotSupported, ""},
    Row{"NotImplemented", Meaning::NotSupported, ""},
    Row{"PreconditionFailed", Meaning::Changed, ""},
    Row{"BadDigest", Meaning::Transient, "the bytes were corrupted in transit"},
    Row{"XAmzContentSHA256Mismatch", Meaning::Transient, "the bytes were corrupted in transit"},
    Row{"IncompleteBody", Meaning::Transient, ""},
    Row{"RequestTimeout", Meaning::Transient, ""},
    Row{"SlowDown", Meaning::TooMany, ""}, // also in a response with the status 200
    Row{"ServiceUnavailable", Meaning::Transient, ""},
    Row{"InternalError", Meaning::Transient, ""},
    Row{"OperationAborted", Meaning::Transient, ""},
    Row{"ConditionalRequestConflict", Meaning::Transient, ""},
    Row{"EntityTooSmall", Meaning::Other, "every part but the last must have at least 5 MiB"},
    Row{"EntityTooLarge", Meaning::Other, "the store does not accept so many bytes in one request"},
    Row{"InvalidPart", Meaning::Other, ""},
    Row{"InvalidPartOrder", Meaning::Other, ""},
};

/// Whether a completion was refused because its parts have different sizes. There is no code for that alone.
bool wantsEqualParts(const ErrorDocument& error)
{
    return error.code == "InvalidPart" && (boost::algorithm::icontains(error.message, "same length") ||
                                              boost::algorithm::icontains(error.message, "same size"));
}

Row rowFor(int status, const ErrorDocument& error)
{
    const std::string& code = error.code;
    if (wantsEqualParts(error))
    {
        return {"", Meaning::UnequalParts, "write the file again with equal-parts=1 in the store's URL"};
    }
    for (const Row& row : rows)
    {
        if (row.code == code)
        {
            return row;
        }
    }
    if (status == 404 && code.empty())
    {
        return {"", Meaning::BadLocation, "this is not the response of an S3 store; check the endpoint"};
    }
    return {"", meaningOf(status), ""};
}

std::string redirectHint(const HttpResponse& response, const ErrorDocument& error, std::string_view hint)
{
    const std::string* const region = response.headers.find("x-amz-bucket-region");
    const std::string place = region == nullptr ? error.region : *region;
    return std::string(hint) + (place.empty() ? "" : "; the bucket is in " + excerpt(place)) +
           (error.endpoint.empty() ? "" : ", at " + excerpt(error.endpoint));
}

} // namespace

void throwErrorResponse(const FailureContext& context, const HttpResponse& response)
{
    throwErrorResponse(context, response, readError(response.body));
}

void throwErrorResponse(const FailureContext& context, const HttpResponse& response, const ErrorDocument& error)
{
    const Row row = rowFor(response.status, error);
    std::string hint = hintFor(row, context, response);
    if (row.code == "NoSuchBucket" && !context.endpointPath.empty())
    {
        hint =
            fmt::format("the endpoint's path {} was sent before the bucket; leave it out if the store does not need it",
                quoted(context.endpointPath));
    }
    else if (row.meaning == Meaning::BadLocation)
    {
        hint = redirectHint(response, error, hint);
    }
    std::string detail = describe(context, response, {error.code, error.message, error.requestId});
    detail += row.code == "NoSuchBucket" ? "; bucket \"" + context.bucket + "\"" : "";
    detail += row.meaning == Meaning::Denied && !context.keyId.empty() ? "; key id " + context.keyId : "";
    detail += hint.empty() ? "" : "; " + hint;

    const Meaning meaning = meaningOf(row, context);
    switch (meaning)
    {
    case Meaning::NotUnderstood:
        throw NotUnderstood("Store error", detail);
    case Meaning::UnequalParts:
        throw UnequalParts(detail);
    case Meaning::Archived:
        throw ArchivedObject("Store error", detail);
    default:
        throwFailure(meaning, detail, response);
    }
}

} // namespace storage::clients::s3
