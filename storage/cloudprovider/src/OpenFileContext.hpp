#pragma once

#include "InternalExport.hpp"

#include <storage/cloudprovider/Buffer.hpp>
#include <storage/cloudprovider/CloudClient.hpp>

#include <foundation/storage/provider/StorageIRI.hpp>

#include <cstdint>
#include <memory>
#include <string>

namespace storage::cloudprovider
{

/// What the part layer needs to know about one open file. Constant after construction: read without locks.
struct CLOUDPROVIDER_INTERNAL OpenFileContext
{
    /// Describe the file; the two sizes are read from the environment here and stay.
    /// @throws whatever utils::iriToKey() throws
    OpenFileContext(foundation::storage::provider::StorageIRI fileIri, CloudClientSharedPtr storeClient,
        std::unique_ptr<BufferFactory> factory);

    const foundation::storage::provider::StorageIRI iri;
    const std::string key;
    const CloudClientSharedPtr client;
    const std::unique_ptr<BufferFactory> bufferFactory;
    const std::uint64_t partSize;                 // bytes that a new part can hold
    const std::uint64_t downloadedPartCacheLimit; // bytes of closed, unmodified parts that are kept loaded
};

using OpenFileContextSharedPtr = std::shared_ptr<OpenFileContext>;

/// Return the bytes that a new part can hold: 5 MiB, or ZV_CLOUD_PART_SIZE_OVERRIDE.
///
/// The variable is read at each call. Anything but a number is logged and ignored; any number is accepted, 0 included.
CLOUDPROVIDER_INTERNAL std::uint64_t partSizeFromEnvironment();

/// Return the bytes of closed parts to keep: 100 MiB, or ZV_CLOUD_DOWNLOADED_PART_CACHE_OVERRIDE, read the same way.
CLOUDPROVIDER_INTERNAL std::uint64_t downloadedPartCacheLimitFromEnvironment();

} // namespace storage::cloudprovider
