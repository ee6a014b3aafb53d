#pragma once

#include <storage/cloudprovider/Buffer.hpp>
#include <storage/cloudprovider/CloudClient.hpp>

#include <foundation/storage/provider/StorageIRI.hpp>

#include <cstdint>
#include <memory>
#include <string>

namespace storage::cloudprovider
{

/// What the part layer needs to know about one open file. Immutable, therefore read without locks.
struct OpenFileContext
{
    /// Compute the key and read the two sizes from the environment.
    /// @throws foundation::storage::provider::Exception like utils::iriToKey()
    OpenFileContext(foundation::storage::provider::StorageIRI fileIri, CloudClientSharedPtr storeClient,
        std::unique_ptr<BufferFactory> factory);

    const foundation::storage::provider::StorageIRI iri;
    const std::string key;
    const CloudClientSharedPtr client;
    const std::unique_ptr<BufferFactory> bufferFactory;
    const std::uint64_t partSize;                 // capacity of a new part, in bytes
    const std::uint64_t downloadedPartCacheLimit; // maximum bytes of closed, unmodified parts that stay loaded
};

using OpenFileContextSharedPtr = std::shared_ptr<OpenFileContext>;

/// Return the capacity of a new part in bytes: 5 MiB, or the value of ZV_CLOUD_PART_SIZE_OVERRIDE.
///
/// Each call reads the variable. Any number is accepted, including 0; other text is logged and ignored.
std::uint64_t partSizeFromEnvironment();

/// Return the maximum bytes of closed parts to keep loaded: 100 MiB, or the value of
/// ZV_CLOUD_DOWNLOADED_PART_CACHE_OVERRIDE, which is read the same way.
std::uint64_t downloadedPartCacheLimitFromEnvironment();

} // namespace storage::cloudprovider
