#pragma once

#include "CredentialsProvider.hpp"

#include <stdexcept>
#include <string>

namespace storage::clients::s3
{

/// An answer that holds no credentials. what() says why and has nothing of the document but its code of failure.
class CredentialsDocumentError : public std::runtime_error
{
public:
    using std::runtime_error::runtime_error;
};

/// Read the JSON document by which containers and machines are given credentials.
///
/// @throws CredentialsDocumentError
IssuedCredentials readCredentialsDocument(const std::string& text);

} // namespace storage::clients::s3
