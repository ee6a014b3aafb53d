#pragma once

#include "Responses.hpp"

#include <storage/clients/http/HttpFailure.hpp>
#include <storage/clients/http/HttpMessage.hpp>
#include <storage/cloudprovider/CloudExceptions.hpp>

#include <string>

namespace storage::clients::s3
{

/// The store has refused a request because the object is not the version that a condition of the request names.
class PreconditionFailed : public cloudprovider::UnknownErrorException
{
public:
    using cloudprovider::UnknownErrorException::UnknownErrorException;
};

/// The store has refused a request as one that it does not understand. It may not know a header of it.
class NotUnderstood : public cloudprovider::UnknownErrorException
{
public:
    using cloudprovider::UnknownErrorException::UnknownErrorException;
};

/// What a message says about a failed request.
struct FailureContext
{
    std::string action; ///< the operation and the key: `getObjectInfo of "a/b"`
    std::string bucket;
    std::string origin;     ///< scheme and host
    std::string keyId;      ///< of the credentials used; empty: anonymous
    bool wasReached = true; ///< the store has responded before, so its address is correct
};

/// Throw the exception for a response that reports a failure.
/// @throws cloudprovider::CloudException, a TransientException for a temporary failure; always one of them
[[noreturn]] void throwErrorResponse(const FailureContext& context, const HttpResponse& response);

/// The same for an error document in a response with a successful status.
[[noreturn]] void throwErrorResponse(
    const FailureContext& context, const HttpResponse& response, const ErrorDocument& error);

/// Throw the exception for a request without a complete response.
[[noreturn]] void throwNoResponse(const FailureContext& context, const HttpFailure& failure);

/// Throw an UnusableResponse for a response that is malformed.
/// @param reason  names what is missing
[[noreturn]] void throwMalformedResponse(
    const FailureContext& context, const HttpResponse& response, const std::string& reason);

/// Throw the exception for an object that is no longer the version that was opened.
[[noreturn]] void throwObjectChanged(const FailureContext& context);

} // namespace storage::clients::s3
