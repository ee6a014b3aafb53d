#pragma once

#include <storage/clients/common/TransientException.hpp>
#include <storage/cloudprovider/CloudExceptions.hpp>

#include <initializer_list>
#include <stdexcept>
#include <string>
#include <string_view>

namespace storage::clients
{

/// @param detail  what is wrong, where, and the remedy; never a secret or a line that may contain one
cloudprovider::InvalidCredentialsException invalidCredentials(const std::string& detail);

/// @param detail  as above
TransientException credentialsUnavailable(const std::string& detail);

/// @param what  the texts, for the failure
/// @throws cloudprovider::InvalidCredentialsException
void requireNoControlCharacters(std::initializer_list<std::string_view> texts, const std::string& what);

/// No connection to a service.
class UnreachableService : public TransientException
{
public:
    explicit UnreachableService(const std::string& detail)
        : TransientException(credentialsUnavailable(detail))
    {
    }
};

/// A document without credentials. what() says why, and contains nothing of the document except its error code.
class CredentialsDocumentError : public std::runtime_error
{
public:
    using std::runtime_error::runtime_error;
};

} // namespace storage::clients
