#pragma once

#include "CredentialsProvider.hpp"

#include <stdexcept>
#include <string>

namespace storage::clients::s3
{

/// A document without credentials. what() says why, and contains nothing of the document except its error code.
class CredentialsDocumentError : public std::runtime_error
{
public:
    using std::runtime_error::runtime_error;
};

/// Parse the JSON document in which containers and machines receive credentials.
///
/// @throws CredentialsDocumentError
IssuedCredentials readCredentialsDocument(const std::string& text);

/// Parse the JSON document in which a program prints credentials.
///
/// @throws CredentialsDocumentError
IssuedCredentials readPrintedCredentials(const std::string& text);

/// Parse the JSON document that the portal of a login returns.
///
/// @throws CredentialsDocumentError
IssuedCredentials readPortalCredentials(const std::string& text);

/// Parse the XML document that the token service returns.
///
/// @throws CredentialsDocumentError
IssuedCredentials readAssumedRole(const std::string& text);

/// Parse the JSON file in which a login has left its token.
///
/// @return the token
/// @throws CredentialsDocumentError
std::string readLogin(const std::string& text);

} // namespace storage::clients::s3
