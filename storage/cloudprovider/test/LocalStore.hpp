#pragma once

#include "FileTestSupport.hpp"

#include <storage/clients/local/LocalClient.hpp>

namespace storage::cloudprovider
{

/// A durable store in a folder of its own, which is removed with it. It keeps parts above 12 bytes in files.
inline CloudClientSharedPtr makeLocalStore()
{
    const auto folder = std::make_shared<PrivateFolder>();
    return {new clients::LocalClient(folder->path(), 12), [folder](const CloudClient* client) { delete client; }};
}

} // namespace storage::cloudprovider
