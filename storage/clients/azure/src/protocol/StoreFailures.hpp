#pragma once

#include <storage/clients/http/HttpMessage.hpp>
#include <storage/clients/remote/ResponseFailures.hpp>

#include <string>

namespace storage::clients::azure
{

/// What a message says about a failed request.
struct FailureContext : RequestContext
{
    std::string container;
};

/// The code of an error response: in a field, so that responses to HEAD have it, too. Empty: it is not the service's.
std::string errorCode(const HttpResponse& response);

/// Throw the exception for a response that reports a failure.
/// @throws cloudprovider::CloudException, a TransientException for a temporary failure; always one of them
[[noreturn]] void throwErrorResponse(const FailureContext& context, const HttpResponse& response);

} // namespace storage::clients::azure
