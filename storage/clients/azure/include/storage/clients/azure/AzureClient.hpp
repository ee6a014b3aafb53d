#pragma once

#include <storage/clients/azure/AzureSettings.hpp>
#include <storage/clients/remote/RemoteClient.hpp>

namespace storage::clients
{

/// A container of Azure Blob Storage. The container must exist.
///
/// Beyond what RemoteClient promises:
/// - Only block blobs are written. Page and append blobs are read; changing one that was opened fails before anything
///   is sent to it.
/// - Every block, blob and range of up to 4 MiB is checked by its MD5.
/// - Unchanged blocks of a file are listed again and not copied. Their version is compared in the same step.
/// - The service has no uploads: it drops blocks that belong to no blob after a week, or when the blob is written.
///   pendingUploads() has only those of this instance, and aborting one sends nothing.
/// - Names with a backslash are refused when they are used: servers take it for a slash.
/// - A failure's detail names the operation, the key, the store's status, error code and request id, and a remedy where
///   one is known. It never contains secrets.
///
/// Keys have at most 1,024 bytes. Objects have at most 50,000 blocks of at most 4,000 MiB. The only process-wide state
/// is the initialisation of libcurl.
class AzureClient : public RemoteClient
{
public:
    /// Sends nothing: a missing container is reported by the first operation.
    /// @throws cloudprovider::InvalidLocationException when the settings are not a valid address
    explicit AzureClient(const azure::AzureSettings& settings);
};

} // namespace storage::clients
