#pragma once

#include "CredentialsSources.hpp"

#include <storage/clients/credentials/ServiceAddress.hpp>

#include <optional>
#include <string>
#include <string_view>

namespace storage::clients::s3
{

/// The domain of the store's own services in a region. The regions in China have another one.
std::string_view domainOf(std::string_view region);

/// The address that replaces a service's own; nothing when none is configured.
///
/// @param service  see configuredEndpoint()
/// @throws cloudprovider::InvalidCredentialsException as parseAddress() and there, when it is neither https nor http,
/// or when a
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
