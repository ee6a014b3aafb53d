#pragma once

#include <storage/clients/memory/MemoryClient.hpp>
#include <storage/cloudprovider/CloudProvider.hpp>

#include <memory>
#include <string_view>

/// A provider over an empty memory store, and IRIs for its files.
struct BenchStore
{
    std::shared_ptr<storage::clients::MemoryClient> client = std::make_shared<storage::clients::MemoryClient>();
    std::shared_ptr<storage::cloudprovider::CloudProvider> provider =
        storage::cloudprovider::buildCloudProvider(client, storage::cloudprovider::FolderPolicy::MarkerObjects, false);

    static foundation::storage::provider::StorageIRI iri(std::string_view key)
    {
        return foundation::storage::provider::StorageIRI::fromUtf8("bench://store/" + std::string(key));
    }
};
