#include <storage/clients/azure/AzureClient.hpp>

#include "AzureStore.hpp"

#include <storage/clients/remote/ContentType.hpp>

namespace storage::clients
{

namespace
{

/// What a new file gets: its type by its name. A file that changes keeps its own.
ObjectMetadata metadataOfNew(const std::string& key)
{
    const std::string type = contentTypeOf(key);
    return type.empty() ? ObjectMetadata() : ObjectMetadata{{"x-ms-blob-content-type", type}};
}

} // namespace

AzureClient::AzureClient(const azure::AzureSettings& settings)
    : RemoteClient(std::make_unique<azure::AzureStore>(settings),
          {.transfers = settings.transfers,
              .memory = settings.memory,
              .partSize = settings.partSize,
              .interrupted = settings.interrupted,
              .newMetadata = settings.newMetadata ? settings.newMetadata : metadataOfNew})
{
}

} // namespace storage::clients
