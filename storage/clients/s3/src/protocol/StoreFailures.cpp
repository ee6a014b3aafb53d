#include "StoreFailures.hpp"

#include "Times.hpp"

#include <storage/clients/common/KeyRules.hpp>
#include <storage/clients/common/TransientException.hpp>
#include <storage/cloudprovider/CloudExceptions.hpp>

#include <boost/date_time/posix_time/posix_time.hpp>

#include <fmt/format.h>

#include <array>
#include <chrono>
#include <cstdlib>
#include <optional>
#include <string_view>

namespace storage::clients::s3
{

using namespace cloudprovider;

namespace
{

enum class Meaning
{
    NotFound,
    BadCredentials,
    ClockSkew,
    Denied,
    BadLocation,
    NotSupported,
    Changed,
    Passing,
    Other
};

struct Row
{
    std::string_view code;
    Meaning meaning;
    std::string_view hint; ///< what to do about it; may be empty
};

constexpr std::string_view changed = "somebody has changed or removed the object since it was opened";
constexpr std::string_view chooseOther = "check the credentials that the environment and the shared files give";

constexpr std::array rows{
    Row{"NoSuchKey", Meaning::NotFound, ""},
    Row{"NoSuchUpload", Meaning::NotFound, "the upload was completed, or aborted by somebody"},
    Row{"NoSuchBucket", Meaning::BadLocation, "there is no such bucket; check its name, or create it first"},
    Row{"InvalidBucketName", Meaning::BadLocation, "check the name of the bucket"},
    Row{"InvalidObjectName", Meaning::BadLocation, "the store does not take this name"},
    Row{"KeyTooLongError", Meaning::BadLocation, "the name is too long"},
    Row{"PermanentRedirect", Meaning::BadLocation, "name the bucket's own endpoint and region"},
    Row{"TemporaryRedirect", Meaning::BadLocation, "name the bucket's own endpoint and region"},
    Row{"AuthorizationHeaderMalformed", Meaning::BadLocation, "check the region"},
    Row{"InvalidAccessKeyId", Meaning::BadCredentials, "the store does not know the key id"},
    Row{"SignatureDoesNotMatch", Meaning::BadCredentials, "the secret is not that of the key id"},
    Row{"ExpiredToken", Meaning::BadCredentials, "the session has expired; log in again"},
    Row{"TokenRefreshRequired", Meaning::BadCredentials, "the session has expired; log in again"},
    Row{"InvalidToken", Meaning::BadCredentials, "check the session token"},
    Row{"MissingSecurityHeader", Meaning::BadCredentials, chooseOther},
    Row{"RequestTimeTooSkewed", Meaning::ClockSkew, ""},
    Row{"RequestExpired", Meaning::ClockSkew, ""},
    Row{"AccessDenied", Meaning::Denied, "ask the bucket's owner for the right to do this"},
    Row{"AllAccessDisabled", Meaning::Denied, ""},
    Row{"AccountProblem", Meaning::Denied, ""},
    Row{"QuotaExceeded", Meaning::Denied, "the quota is used up"},
    Row{"MethodNotAllowed", Meaning::NotSupported, ""},
    Row{"NotImplemented", Meaning::NotSupported, ""},
    Row{"PreconditionFailed", Meaning::Changed, ""},
    Row{"BadDigest", Meaning::Passing, "the bytes were damaged on their way"},
    Row{"XAmzContentSHA256Mismatch", Meaning::Passing, "the bytes were damaged on their way"},
    Row{"IncompleteBody", Meaning::Passing, ""},
    Row{"RequestTimeout", Meaning::Passing, ""},
    Row{"SlowDown", Meaning::Passing, ""},
    Row{"ServiceUnavailable", Meaning::Passing, ""},
    Row{"InternalError", Meaning::Passing, ""},
    Row{"OperationAborted", Meaning::Passing, ""},
    Row{"ConditionalRequestConflict", Meaning::Passing, ""},
    Row{"EntityTooSmall", Meaning::Other, "every part but the last must have 5 MiB"},
    Row{"EntityTooLarge", Meaning::Other, "the store does not take so many bytes at once"},
};

Meaning meaningOf(int status)
{
    switch (status)
    {
    case 401:
        return Meaning::BadCredentials;
    case 403:
        return Meaning::Denied;
    case 404:
        return Meaning::NotFound;
    case 405:
    case 501:
        return Meaning::NotSupported;
    case 412:
        return Meaning::Changed;
    case 408:
    case 429:
        return Meaning::Passing;
    case 301:
    case 302:
    case 307:
    case 308:
        return Meaning::BadLocation;
    default:
        return status >= 500 && status != 507 ? Meaning::Passing : Meaning::Other;
    }
}

Row rowFor(int status, const std::string& code)
{
    for (const Row& row : rows)
    {
        if (row.code == code)
        {
            return row;
        }
    }
    if (status == 404 && code.empty())
    {
        return {"", Meaning::BadLocation, "this is no answer of an S3 store; check the endpoint"};
    }
    return {"", meaningOf(status), ""};
}

/// What a store wrote, as a message may show it: on one line, and cut when it is long.
std::string shown(const std::string& text)
{
    const std::string inQuotes = quoted(text);
    return inQuotes.substr(1, inQuotes.size() - 2);
}

/// What was asked, and who answered what.
std::string failureBy(const FailureContext& context, const HttpResponse& response, const ErrorDocument& error)
{
    const std::string* const header = response.headers.find("x-amz-request-id");
    const std::string requestId = header != nullptr ? *header : error.requestId;
    std::string text = fmt::format("{} failed: {} answered {}", context.action, context.origin, response.status);
    text += error.code.empty() ? "" : " " + shown(error.code);
    text += error.message.empty() || error.message == error.code ? "" : " (" + shown(error.message) + ")";
    text += requestId.empty() ? "" : ", request " + shown(requestId);
    return text;
}

std::string skewHint(const HttpResponse& response)
{
    const std::string* const date = response.headers.find("Date");
    const auto theirs = date == nullptr ? boost::posix_time::ptime() : readHttpTime(*date);
    if (theirs.is_special())
    {
        return "set this machine's clock";
    }
    const auto ahead = (boost::posix_time::second_clock::universal_time() - theirs).total_seconds();
    return fmt::format(
        "this machine's clock is {} s {} the store's; set it", std::abs(ahead), ahead < 0 ? "behind" : "ahead of");
}

std::string redirectHint(const HttpResponse& response, const ErrorDocument& error, std::string_view hint)
{
    const std::string* const region = response.headers.find("x-amz-bucket-region");
    const std::string place = region == nullptr ? error.region : *region;
    return std::string(hint) + (place.empty() ? "" : "; the bucket is in " + shown(place)) +
           (error.endpoint.empty() ? "" : ", at " + shown(error.endpoint));
}

std::optional<std::chrono::milliseconds> retryAfter(const HttpResponse& response)
{
    const std::string* const field = response.headers.find("Retry-After");
    if (field == nullptr || field->empty())
    {
        return std::nullopt;
    }
    if (field->find_first_not_of("0123456789") == std::string::npos && field->size() < 8)
    {
        return std::chrono::seconds(std::stol(*field));
    }
    const auto moment = readHttpTime(*field);
    if (moment.is_special())
    {
        return std::nullopt;
    }
    const auto seconds = (moment - boost::posix_time::second_clock::universal_time()).total_seconds();
    return std::chrono::seconds(std::max(seconds, decltype(seconds){0}));
}

} // namespace

void throwErrorResponse(const FailureContext& context, const HttpResponse& response)
{
    throwErrorResponse(context, response, readError(response.body));
}

void throwErrorResponse(const FailureContext& context, const HttpResponse& response, const ErrorDocument& error)
{
    const Row row = rowFor(response.status, error.code);
    std::string hint(row.hint);
    if (row.meaning == Meaning::ClockSkew)
    {
        hint = skewHint(response);
    }
    else if (row.meaning == Meaning::BadLocation)
    {
        hint = redirectHint(response, error, hint);
    }
    else if (row.meaning == Meaning::BadCredentials && context.keyId.empty())
    {
        hint = "no credentials were given";
    }

    else if (row.meaning == Meaning::Changed)
    {
        hint = changed;
    }

    std::string detail = failureBy(context, response, error);
    detail += row.code == "NoSuchBucket" ? "; bucket \"" + context.bucket + "\"" : "";
    detail += row.meaning == Meaning::Denied && !context.keyId.empty() ? "; key id " + context.keyId : "";
    detail += hint.empty() ? "" : "; " + hint;

    switch (row.meaning)
    {
    case Meaning::NotFound:
        throw ResourceNotFoundException(detail);
    case Meaning::BadCredentials:
    case Meaning::ClockSkew:
        throw InvalidCredentialsException("Credentials refused", detail);
    case Meaning::Denied:
        throw PermissionDeniedException("Permission denied", detail);
    case Meaning::BadLocation:
        throw InvalidLocationException("Invalid location", detail);
    case Meaning::NotSupported:
        throw UnsupportedOperationException(detail);
    case Meaning::Changed:
        throw UnknownErrorException("Object changed", detail);
    case Meaning::Passing:
        throw TransientException("Store busy", detail, retryAfter(response));
    case Meaning::Other:
        break;
    }
    throw UnknownErrorException("Store error", detail);
}

void throwNoResponse(const FailureContext& context, const HttpFailure& failure)
{
    const std::string detail = fmt::format("{} failed: {}: {}", context.action, context.origin, failure.what());
    switch (failure.kind())
    {
    case HttpFailure::Kind::Certificate:
        throw InvalidLocationException(
            "Certificate refused", detail + "; if the store has authorities of its own, name their file with ca-file");
    case HttpFailure::Kind::Invalid:
        throw InvalidLocationException("Invalid store", detail);
    case HttpFailure::Kind::Unreachable:
        if (!context.wasReached)
        {
            throw UnknownErrorException(
                "Store unreachable", detail + "; check the endpoint, and that the store is running");
        }
        break;
    case HttpFailure::Kind::Stalled:
    case HttpFailure::Kind::Broken:
    case HttpFailure::Kind::Interrupted: // what was asked for may have happened, as after a broken connection
        break;
    }
    throw TransientException("Store unreachable", detail);
}

void throwMalformedResponse(const FailureContext& context, const HttpResponse& response, const std::string& reason)
{
    throw TransientException("Broken answer", failureBy(context, response, {}) + "; " + reason);
}

void throwObjectChanged(const FailureContext& context)
{
    throw UnknownErrorException("Object changed", fmt::format("{} failed: {}", context.action, changed));
}

} // namespace storage::clients::s3
