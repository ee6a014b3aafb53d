#pragma once

#include <storage/clients/http/HttpFailure.hpp>
#include <storage/clients/http/HttpMessage.hpp>
#include <storage/clients/remote/RemoteFailures.hpp>

#include <string>
#include <string_view>

/// The failures that all stores with HTTP have in common.
namespace storage::clients
{

/// What a message says about a failed request.
struct RequestContext
{
    std::string action;              ///< the operation and the key: `getObjectInfo of "a/b"`
    std::string origin;              ///< scheme and host
    std::string_view requestIdField; ///< of responses; valid until the program ends
    bool wasReached = true;          ///< the store has responded before, so its address is correct
    bool hasCondition = false;       ///< the request names a version
    bool isAnonymous = false;        ///< it was sent without credentials
};

/// Whether the fields of a request name the version of an object that it needs.
bool hasCondition(const HttpHeaders& fields);

/// The part of an error response that is shown; every field may be empty.
struct StoreError
{
    std::string code;
    std::string message;
    std::string requestId; ///< unless the response has it as a field
};

/// What an error response means. Not every store has all of them.
enum class FailureMeaning
{
    NotFound,
    BadCredentials,
    ClockSkew,
    Denied,
    BadLocation,
    NotSupported,
    NotUnderstood,
    UnequalParts,
    Changed,
    Archived,
    Transient,
    TooMany,
    Other
};

/// What a code in an error response means.
struct KnownFailure
{
    std::string_view code;
    FailureMeaning meaning;
    std::string_view hint; ///< what to do about it; may be empty
};

/// What a status means if the code does not tell.
FailureMeaning meaningOf(int status);

/// What a failed request means: not that the object has changed if the request has no condition.
FailureMeaning meaningOf(const KnownFailure& failure, const RequestContext& context);

/// What to do about a failure, or why it happened; may be empty.
std::string hintFor(const KnownFailure& failure, const RequestContext& context, const HttpResponse& response);

/// Text from a store as messages show it: on one line, and truncated when it is long.
std::string excerpt(const std::string& text);

/// The request and its response.
std::string describe(const RequestContext& context, const HttpResponse& response, const StoreError& error = {});

/// Throw the exception for a meaning; an UnknownErrorException for one that has no exception of its own.
[[noreturn]] void throwFailure(FailureMeaning meaning, const std::string& detail, const HttpResponse& response);

/// Throw the exception for a request without a complete response.
[[noreturn]] void throwNoResponse(const RequestContext& context, const HttpFailure& failure);

/// Throw an UnusableResponse for a response that is malformed.
/// @param reason  names what is missing
[[noreturn]] void throwMalformedResponse(
    const RequestContext& context, const HttpResponse& response, const std::string& reason);

/// Throw a CorruptContent for bytes that do not match the hash in their response.
[[noreturn]] void throwCorruptContent(const RequestContext& context, const HttpResponse& response);

/// Throw a PreconditionFailed for an object that is not the required version.
/// @param wasSentTwice  see PreconditionFailed
[[noreturn]] void throwObjectChanged(const RequestContext& context, bool wasSentTwice = false);

} // namespace storage::clients
