#pragma once

#include <storage/cloudprovider/CloudClient.hpp>

#include <functional>
#include <memory>
#include <string>

namespace storage::clients
{

/// Open the store that a URL names.
///
/// - `local:DIR`  a durable store in a directory, see LocalClient; it is made when it is missing
/// - `local:`     the same in `cloudfs` below $XDG_DATA_HOME, or below ~/.local/share when that is not set
/// - `memory:`    a new empty store of this process alone, see MemoryClient
/// - `s3://BUCKET?endpoint=URL&region=REGION&path-style=1`  a bucket, see s3::parseS3Url() and S3Client;
///   calls are retried, see RetryingClient, parts are sent and fetched several at a time, `transfers=N`, with buffers
///   of `memory=BYTES`, one half each, see PipelinedUploadClient and ReadAheadClient; `transfers=1` turns both off.
///
/// Every store counts its calls, see CountingClient. findInterface() finds StoreCounters, UploadInventory and the store
/// itself behind the result.
///
/// @param interrupted  whether the process is interrupted: then requests that are in progress end and nothing is
///                     retried, see S3Settings and RetryingClient. Must be safe to call from any thread, as long as
///                     the store lives. Empty: never.
/// Credentials never stand in a URL, where other users of the machine could read them: one that holds any is refused.
/// From any thread, as long as nobody changes the environment meanwhile.
/// @throws InvalidLocationException for every other URL, with the forms above in its detail
/// @throws what the store's own constructor throws
std::shared_ptr<cloudprovider::CloudClient> openStore(const std::string& url, std::function<bool()> interrupted = {});

} // namespace storage::clients
