#pragma once

#include <storage/clients/decorators/InterceptingClient.hpp>

#include <storage/cloudprovider/CloudClient.hpp>

namespace storage::clients
{

/// Find an interface that a client offers beside CloudClient, such as StoreCounters: its own, or the one of the nearest
/// client inside it if it is a decorator.
///
/// @return valid as long as `client`; null when none of them offers it, which is not an error
template <typename Interface>
Interface* findInterface(cloudprovider::CloudClient& client)
{
    if (auto* const found = dynamic_cast<Interface*>(&client))
    {
        return found;
    }
    auto* const decorator = dynamic_cast<InterceptingClient*>(&client);
    return decorator != nullptr ? findInterface<Interface>(decorator->inner()) : nullptr;
}

} // namespace storage::clients
