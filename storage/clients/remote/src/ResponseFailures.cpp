#include <storage/clients/remote/ResponseFailures.hpp>

#include <storage/clients/common/KeyRules.hpp>
#include <storage/clients/http/ResponseFields.hpp>

#include <fmt/format.h>

#include <algorithm>

namespace storage::clients
{

using namespace cloudprovider;

namespace
{

constexpr std::string_view objectChanged = "somebody has changed or removed the object since it was opened";

} // namespace

bool hasCondition(const HttpHeaders& fields)
{
    return std::any_of(fields.begin(), fields.end(),
        [](const HttpHeaders::Field& field)
        { return field.name.starts_with("If-") || field.name.ends_with("-source-if-match"); });
}

std::string excerpt(const std::string& text)
{
    const std::string inQuotes = quoted(text);
    return inQuotes.substr(1, inQuotes.size() - 2);
}

std::string describe(const RequestContext& context, const HttpResponse& response, const StoreError& error)
{
    const std::string* const header = response.headers.find(context.requestIdField);
    const std::string requestId = header != nullptr ? *header : error.requestId;
    std::string text = fmt::format("{} failed: {} returned {}", context.action, context.origin, response.status);
    text += error.code.empty() ? "" : fmt::format(" {}", excerpt(error.code));
    text += error.message.empty() || error.message == error.code ? "" : fmt::format(" ({})", excerpt(error.message));
    text += requestId.empty() ? "" : fmt::format(", request {}", excerpt(requestId));
    return text;
}

FailureMeaning meaningOf(int status)
{
    switch (status)
    {
    case 400:
        return FailureMeaning::NotUnderstood;
    case 401:
        return FailureMeaning::BadCredentials;
    case 403:
        return FailureMeaning::Denied;
    case 404:
        return FailureMeaning::NotFound;
    case 405:
    case 501:
        return FailureMeaning::NotSupported;
    case 412:
        return FailureMeaning::Changed;
    case 408:
    case 409: // another request is changing the object
    case 429:
        return FailureMeaning::Transient;
    case 301:
    case 302:
    case 307:
    case 308:
        return FailureMeaning::BadLocation;
    default:
        return status >= 500 && status != 507 ? FailureMeaning::Transient : FailureMeaning::Other;
    }
}

FailureMeaning meaningOf(const KnownFailure& failure, const RequestContext& context)
{
    const bool isOther = failure.meaning == FailureMeaning::Changed && !context.hasCondition;
    return isOther ? FailureMeaning::Other : failure.meaning;
}

std::string hintFor(const KnownFailure& failure, const RequestContext& context, const HttpResponse& response)
{
    std::string hint(failure.hint);
    switch (meaningOf(failure, context))
    {
    case FailureMeaning::ClockSkew:
        return hint + clockHint(response);
    case FailureMeaning::BadCredentials:
        return context.isAnonymous ? "no credentials were given" : hint;
    case FailureMeaning::Changed:
        return std::string(objectChanged);
    default:
        return hint;
    }
}

void throwFailure(FailureMeaning meaning, const std::string& detail, const HttpResponse& response)
{
    switch (meaning)
    {
    case FailureMeaning::NotFound:
        throw ResourceNotFoundException(detail);
    case FailureMeaning::BadCredentials:
    case FailureMeaning::ClockSkew:
        throw InvalidCredentialsException("Credentials refused", detail);
    case FailureMeaning::Denied:
        throw PermissionDeniedException("Permission denied", detail);
    case FailureMeaning::BadLocation:
        throw InvalidLocationException("Invalid location", detail);
    case FailureMeaning::NotSupported:
        throw UnsupportedOperationException(detail);
    case FailureMeaning::Changed:
        throw PreconditionFailed(detail, response.wasSentTwice);
    case FailureMeaning::TooMany:
    case FailureMeaning::Transient:
        if (meaning == FailureMeaning::TooMany || response.status == 429 || response.status == 503)
        {
            throw TooManyRequests("Store busy", detail, retryAfter(response));
        }
        throw TransientException("Store busy", detail, retryAfter(response));
    default:
        throw UnknownErrorException("Store error", detail);
    }
}

void throwNoResponse(const RequestContext& context, const HttpFailure& failure)
{
    const std::string detail = fmt::format("{} failed: {}: {}", context.action, context.origin, failure.what());
    switch (failure.kind())
    {
    case HttpFailure::Kind::Certificate:
        throw InvalidLocationException("Certificate refused",
            detail + "; if the store has its own certificate authority, pass its PEM file as ca-file in the URL");
    case HttpFailure::Kind::Invalid:
        throw InvalidLocationException("Invalid store", detail);
    case HttpFailure::Kind::Unreachable:
        if (!context.wasReached)
        {
            throw UnknownErrorException(
                "Store unreachable", detail + "; check the endpoint, and that the store is running");
        }
        break;
    case HttpFailure::Kind::Unusable:
        throw UnusableResponse("Malformed response", detail + "; check the endpoint");
    case HttpFailure::Kind::Stalled:
    case HttpFailure::Kind::Broken:
    case HttpFailure::Kind::Interrupted: // the request may have taken effect, as after a broken connection
        break;
    }
    throw TransientException("Store unreachable", detail);
}

void throwMalformedResponse(const RequestContext& context, const HttpResponse& response, const std::string& reason)
{
    throw UnusableResponse("Malformed response", describe(context, response) + "; " + reason);
}

void throwCorruptContent(const RequestContext& context, const HttpResponse& response)
{
    throw CorruptContent("Malformed response", describe(context, response) + "; the bytes do not match their hash");
}

void throwObjectChanged(const RequestContext& context, bool wasSentTwice)
{
    throw PreconditionFailed(fmt::format("{} failed: {}", context.action, objectChanged), wasSentTwice);
}

} // namespace storage::clients
