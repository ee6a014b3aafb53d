#pragma once

#include "CredentialsSources.hpp"

#include <storage/clients/http/UriEncoding.hpp>

#include <chrono>
#include <string>

namespace storage::clients::azure
{

/// What tokens are requested for: the storage service, in all clouds.
constexpr const char* storageResource = "https://storage.azure.com/";

/// Parse the JSON document in which services issue a token.
///
/// @param requested  when the lifetime of the token began
/// @throws CredentialsDocumentError
IssuedCredentials readToken(const std::string& text, std::chrono::sys_seconds requested);

/// Parse seconds since 1970.
///
/// @throws CredentialsDocumentError
std::chrono::sys_seconds readSeconds(const std::string& text);

/// Whom a token is requested for.
struct Grant
{
    std::string holder; ///< for messages: application "ID"
    std::string tenant;
    std::string authority;      ///< the service's host, unless AZURE_AUTHORITY_HOST names one
    QueryParameters parameters; ///< what proves the identity
    std::string remedy = {};    ///< for messages, when the service refuses; empty: none is known
};

/// Request a token from the identity service.
///
/// @throws what a loader throws; also when AZURE_AUTHORITY_HOST cannot be used
IssuedCredentials requestToken(const SourceContext& context, const Grant& grant);

} // namespace storage::clients::azure
