#pragma once

#include <storage/clients/http/HttpMessage.hpp>
#include <storage/clients/s3/Credentials.hpp>

#include <ctime>
#include <string>

namespace storage::clients::s3
{

/// What a signature covers besides the fields of the request.
struct SigningContext
{
    std::string host;        ///< the value of the Host field
    std::string path;        ///< encoded, from the first "/"
    std::string query;       ///< as returned by encodeQuery(); empty: none
    std::string payloadHash; ///< SHA-256 of the body in hexadecimal
    std::string region;
    std::time_t time = 0; ///< of sending
    const char* service = "s3";
};

/// Add the fields that authenticate a request: the signature (version 4) of all its fields, the host, the time and the
/// hash of the body. With anonymous credentials only the hash is added.
void sign(HttpRequest& request, const SigningContext& context, const Credentials& credentials);

} // namespace storage::clients::s3
