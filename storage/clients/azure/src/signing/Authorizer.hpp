#pragma once

#include <storage/clients/azure/Credentials.hpp>
#include <storage/clients/http/HttpMessage.hpp>
#include <storage/clients/http/UriEncoding.hpp>

#include <ctime>
#include <string>

namespace storage::clients::azure
{

/// The version of the protocol that requests have. All that is used here exists since then.
inline constexpr const char* protocolVersion = "2021-12-02";

/// What a signature covers besides the fields of the request.
struct SigningContext
{
    std::string account;
    std::string path; ///< encoded, from the first "/"
    QueryParameters query = {};
    std::time_t time = 0; ///< of sending
};

/// Add what authorises a request: the signature of its fields with the account's key, a bearer token, or the shared
/// access signature, which becomes part of its URL. The protocol's version and the time are always added.
/// @throws cloudprovider::InvalidCredentialsException when the key is not base64
void authorize(HttpRequest& request, const SigningContext& context, const Credentials& credentials);

/// Add the field that names the source of a copy, and what authorises the store to read it.
///
/// @param url       of the source, without a query
/// @param resource  its name, see ContainerAddress::resource()
/// @throws as authorize()
void addSource(HttpHeaders& headers, const std::string& url, const std::string& resource, std::time_t time,
    const Credentials& credentials);

} // namespace storage::clients::azure
