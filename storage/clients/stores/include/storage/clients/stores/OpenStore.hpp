#pragma once

#include <storage/clients/remote/CacheSettings.hpp>
#include <storage/cloudprovider/CloudClient.hpp>

#include <filesystem>
#include <functional>
#include <memory>
#include <optional>
#include <string>

namespace storage::clients
{

/// What may be chosen when a store is opened.
struct OpenStoreOptions
{
    /// Whether the process is interrupted: then requests in progress are cancelled, nothing is retried, and no call
    /// waits for a lock; see S3Settings and LocalSettings. Must be safe to call from any thread during the lifetime of
    /// the store. Empty: never.
    std::function<bool()> interrupted = {};

    /// Create a local store that does not exist. False: opening it throws, and nothing is created.
    bool createMissing = true;

    /// The cache of a distant store whose URL names none.
    CacheSettings cache = {};
};

/// Open the store with this URL.
///
/// - `local:DIR`  a durable store in a directory, which is created if it is missing, unless the options forbid that;
///   see LocalClient
/// - `local:`     the same in the directory $XDG_DATA_HOME/cloudfs, or ~/.local/share/cloudfs if that variable is not
///   set
/// - `memory:`    a new, empty store in the memory of this process; see MemoryClient
/// - `s3://BUCKET/PREFIX?endpoint=URL&region=REGION&path-style=1`  a bucket, or what is below a prefix in it; see
///   s3::parseS3Url() for all parameters, and S3Client
/// - `azure://ACCOUNT/CONTAINER/PREFIX?endpoint=URL`  a container of Azure Blob Storage, or what is below a prefix in
///   it; see azure::parseAzureUrl() for all parameters, and AzureClient
///
/// With the parameters `cache=DIR&cache-size=BYTES`, what is read of a distant store is kept in the folder, up to so
/// many bytes (1 GiB by default), and read from there again; see CachingClient and RangeCache. If another process, or
/// another store of this process, uses the folder, a warning is logged and the store is read without a cache.
///
/// On the result, findInterface() finds StoreCounters, UploadInventory and the store's own class. The counters are
/// those of CountingClient, or of RemoteClient.
///
/// A URL must not contain credentials, because other users of the machine could read them; such a URL is refused. Any
/// thread may call this, but no other thread may change the environment at the same time.
///
/// @throws InvalidLocationException for any other URL; its detail lists the forms above
/// @throws ResourceNotFoundException when a local store does not exist and is not to be created
/// @throws what the store's own constructor throws
std::shared_ptr<cloudprovider::CloudClient> openStore(const std::string& url, const OpenStoreOptions& options = {});

/// Return the directory of the store with this URL, for checkLocalStore(); nullopt if it is not a local store.
///
/// @throws InvalidLocationException as openStore()
std::optional<std::filesystem::path> localStoreDirectory(const std::string& url);

} // namespace storage::clients
