#pragma once

#include "CredentialsSources.hpp"

#include <ctime>
#include <optional>
#include <string>

namespace storage::clients::s3
{

// All functions below throw CredentialsDocumentError.

/// Parse the JSON document in which containers and machines receive credentials.
IssuedCredentials readCredentialsDocument(const std::string& text);

/// Parse the JSON document in which a program prints credentials.
IssuedCredentials readPrintedCredentials(const std::string& text);

/// Parse the JSON document that the portal of a login returns.
IssuedCredentials readPortalCredentials(const std::string& text);

/// Parse the XML document that the token service returns.
IssuedCredentials readAssumedRole(const std::string& text);

/// Read the token in the JSON file that a login has left.
std::string readLogin(const std::string& text);

/// The JSON document that requests a new token for the login in such a file; nothing when the file does not have what
/// that needs.
std::optional<std::string> renewalRequest(const std::string& text);

/// Put the token of the service's response into the text of such a file.
///
/// @param now  when the lifetime of the token began
std::string renewedLogin(const std::string& text, const std::string& response, std::time_t now);

} // namespace storage::clients::s3
