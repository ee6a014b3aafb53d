#pragma once

#include "Responses.hpp"

#include <storage/clients/http/HttpFailure.hpp>
#include <storage/clients/http/HttpMessage.hpp>
#include <storage/clients/remote/RemoteFailures.hpp>
#include <storage/cloudprovider/CloudExceptions.hpp>

#include <string>

namespace storage::clients::s3
{

/// The store has refused a request as one that it does not understand. It may not know a header of it.
class NotUnderstood : public cloudprovider::UnknownErrorException
{
public:
    using cloudprovider::UnknownErrorException::UnknownErrorException;
};

/// The store completes only uploads whose parts have equal sizes.
class UnequalParts : public cloudprovider::UnsupportedOperationException
{
public:
    using cloudprovider::UnsupportedOperationException::UnsupportedOperationException;
};

/// The object cannot be read before it is restored from an archive.
class ArchivedObject : public cloudprovider::UnknownErrorException
{
public:
    using cloudprovider::UnknownErrorException::UnknownErrorException;
};

/// What a message says about a failed request.
struct FailureContext
{
    std::string action; ///< the operation and the key: `getObjectInfo of "a/b"`
    std::string bucket;
    std::string origin;        ///< scheme and host
    std::string endpointPath;  ///< comes before the bucket and the key; usually empty
    std::string keyId;         ///< of the credentials used; empty: anonymous
    bool wasReached = true;    ///< the store has responded before, so its address is correct
    bool hasCondition = false; ///< the request names a version
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

/// Throw a CorruptContent for bytes that do not match the entity tag in their response.
[[noreturn]] void throwCorruptContent(const FailureContext& context, const HttpResponse& response);

/// Throw a PreconditionFailed for an object that is not the required version.
/// @param wasSentTwice  see PreconditionFailed
[[noreturn]] void throwObjectChanged(const FailureContext& context, bool wasSentTwice = false);

} // namespace storage::clients::s3
