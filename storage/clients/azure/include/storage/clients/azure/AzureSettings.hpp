#pragma once

#include <storage/clients/azure/Credentials.hpp>
#include <storage/clients/common/VersionPins.hpp>
#include <storage/clients/http/HttpTimeouts.hpp>
#include <storage/clients/remote/CacheSettings.hpp>

#include <cstddef>
#include <cstdint>
#include <filesystem>
#include <functional>
#include <memory>
#include <string>

namespace storage::clients::azure
{

/// Where a container is, and how to talk to it.
struct AzureSettings
{
    std::string account;
    std::string container;
    std::string prefix = {};   ///< of all keys, with its last "/"; empty: the whole container
    std::string endpoint = {}; ///< http://HOST:PORT/PATH or https://HOST; empty: the account's own
    HttpTimeouts timeouts = {};

    std::size_t transfers = 8;          ///< see RemoteSettings, also for the next two
    std::uint64_t memory = 64 << 20;    ///< bytes
    std::uint64_t partSize = 256 << 10; ///< bytes
    CacheSettings cache = {};
    std::filesystem::path authorities = {}; ///< PEM file that replaces the system's certificate authorities
    std::shared_ptr<CredentialsSource> credentials = nullptr; ///< null: defaultCredentials() of the account

    /// Called at least ten times a second during a request, on the thread that waits for it. When it returns true,
    /// nothing is retried and requests in progress are cancelled. Only deletions are sent from then on, because they
    /// clean up; HttpTimeouts::cleanUp limits them. Null: nothing is cancelled.
    std::function<bool()> interrupted = nullptr;

    /// The metadata of a new file, as fields of the request: x-ms-blob-content-type, `x-ms-meta-…`, x-ms-access-tier,
    /// x-ms-tags and the like. Must be safe to call from any thread. Null: the x-ms-blob-content-type of
    /// contentTypeOf(), if that is known.
    std::function<ObjectMetadata(const std::string& key)> newMetadata = nullptr;
};

/// Parse a store's URL: `azure://ACCOUNT/CONTAINER/PREFIX?endpoint=URL`.
///
/// Without a prefix, the container is the root of the store. With one, only the blobs below it are in the store, and
/// neither keys nor messages contain it. All parameters are optional; values may be percent-encoded. The others are:
/// `transfers=N`, `memory=BYTES`, `part-size=BYTES`, `cache=DIR`, `cache-size=BYTES`, `ca-file=PATH` and `anonymous=1`.
/// The endpoint defaults to `https://ACCOUNT.blob.core.windows.net`. That of an emulator ends with the account:
/// `http://127.0.0.1:10000/ACCOUNT`.
/// @throws cloudprovider::InvalidLocationException whose detail says what is wrong; it never repeats what may be a
///         secret
AzureSettings parseAzureUrl(const std::string& url);

} // namespace storage::clients::azure
