#pragma once

#include "CredentialsSources.hpp"

#include <optional>
#include <string>
#include <string_view>

namespace storage::clients::s3
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

/// The domain of the store's own services in a region. The regions in China have another one.
std::string_view domainOf(std::string_view region);

/// Parse a URL.
///
/// @param name  what contains the URL, for errors
/// @throws cloudprovider::InvalidCredentialsException, whose detail does not repeat the URL, if it is not valid or
///         contains a user name
ServiceAddress parseAddress(const std::string& name, const std::string& url);

/// Whether nothing that is sent to an address crosses a network unencrypted: https, or http on this machine.
bool isPrivate(const ServiceAddress& address);

/// The address that replaces a service's own; nothing when none is configured.
///
/// @param service  see configuredEndpoint()
/// @throws cloudprovider::InvalidCredentialsException as above and there, when it is neither https nor http, or when a
///         login would be sent to it that is not private
std::optional<ServiceAddress> configuredAddress(const SourceContext& context, const std::string& service);

/// The address of one of the regional services that issue credentials.
///
/// @param service  see configuredAddress(), which replaces the region's own endpoint
/// @param host     the first labels of the region's own endpoint
/// @param region   empty: the service's global endpoint
/// @throws cloudprovider::InvalidCredentialsException as above and there, or when the region is not a valid name
ServiceAddress regionalAddress(
    const SourceContext& context, const std::string& service, const std::string& host, const std::string& region);

} // namespace storage::clients::s3
