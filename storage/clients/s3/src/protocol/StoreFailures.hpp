#pragma once

#include "Responses.hpp"

#include "http/HttpFailure.hpp"
#include "http/HttpMessage.hpp"

#include <string>

namespace storage::clients::s3
{

/// What a failed request was about, for the person who reads of it.
struct FailureContext
{
    std::string action; ///< the operation and the key: `getObjectInfo of "a/b"`
    std::string bucket;
    std::string origin;     ///< scheme and host
    std::string keyId;      ///< whose credentials; empty: nobody's
    bool wasReached = true; ///< the store has answered before, so that it is away rather than misnamed
};

/// Throw what an answer other than a good one means.
/// @throws cloudprovider::CloudException, TransientException when it may pass; always one of them
[[noreturn]] void throwErrorResponse(const FailureContext& context, const HttpResponse& response);

/// The same for an error document that came with a good status.
[[noreturn]] void throwErrorResponse(
    const FailureContext& context, const HttpResponse& response, const ErrorDocument& error);

/// Throw what it means that there was no whole answer.
[[noreturn]] void throwNoResponse(const FailureContext& context, const HttpFailure& failure);

/// Throw that an answer makes no sense, which a repeated request may cure.
[[noreturn]] void throwMalformedResponse(
    const FailureContext& context, const HttpResponse& response, const std::string& reason);

/// Throw that the object is no longer the one that the caller knows.
[[noreturn]] void throwObjectChanged(const FailureContext& context);

} // namespace storage::clients::s3
