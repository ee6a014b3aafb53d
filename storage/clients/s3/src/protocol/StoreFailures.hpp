#pragma once

#include "Responses.hpp"

#include <storage/clients/http/HttpMessage.hpp>
#include <storage/clients/remote/ResponseFailures.hpp>
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
struct FailureContext : RequestContext
{
    std::string bucket;
    std::string endpointPath; ///< comes before the bucket and the key; usually empty
    std::string keyId;        ///< of the credentials used; empty: anonymous
};

/// Throw the exception for a response that reports a failure.
/// @throws cloudprovider::CloudException, a TransientException for a temporary failure; always one of them
[[noreturn]] void throwErrorResponse(const FailureContext& context, const HttpResponse& response);

/// The same for an error document in a response with a successful status.
[[noreturn]] void throwErrorResponse(
    const FailureContext& context, const HttpResponse& response, const ErrorDocument& error);

} // namespace storage::clients::s3
