#pragma once

#include <storage/clients/decorators/ForwardingClient.hpp>

#include <storage/cloudprovider/CloudClient.hpp>

namespace storage::clients
{

/// Find an interface that a client may offer beside CloudClient, such as StoreCounters: its own, or that of the nearest
/// client behind it, where it is a decorator.
///
/// @return valid as long as `client`; null when none of them offers it, which is no failure
template <typename Interface>
Interface* findInterface(cloudprovider::CloudClient& client)
{
    if (auto* const found = dynamic_cast<Interface*>(&client))
    {
        return found;
    }
    auto* const decorator = dynamic_cast<ForwardingClient*>(&client);
    return decorator != nullptr ? findInterface<Interface>(decorator->inner()) : nullptr;
}

} // namespace storage::clients
