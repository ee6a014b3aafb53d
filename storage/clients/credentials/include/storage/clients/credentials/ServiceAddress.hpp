#pragma once

#include <string>

namespace storage::clients
{

/// The address of a service, parsed with the library that will connect to it, so that both see the same host.
struct ServiceAddress
{
    std::string url; ///< without a trailing "/"
    std::string scheme;
    std::string host;
    std::string port; ///< empty: the scheme's default
    std::string path; ///< from the first "/"
};

/// Parse a URL.
///
/// @param name  what contains the URL, for errors
/// @throws cloudprovider::InvalidCredentialsException, whose detail does not repeat the URL, if it is not valid or
///         contains a user name
ServiceAddress parseAddress(const std::string& name, const std::string& url);

/// Whether a host, without a port, is this machine.
bool isLoopback(const std::string& host);

/// Whether nothing that is sent to an address crosses a network unencrypted: https, or http on this machine.
bool isPrivate(const ServiceAddress& address);

/// Whether the host is an IPv4 address, in digits, that begins like this.
bool isAddressIn(const std::string& host, const char* prefix);

} // namespace storage::clients
