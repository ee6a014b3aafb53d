#pragma once

#include <storage/clients/remote/RemoteClient.hpp>
#include <storage/clients/s3/S3Settings.hpp>

namespace storage::clients
{

/// A bucket of a store that speaks the S3 protocol. The bucket must exist.
///
/// Beyond what RemoteClient promises:
/// - If a condition of WriteConditions requires that there is no object, the write carries `If-None-Match: *`, also
///   where the endpoint is not known to heed it. Without EndpointCapabilities::conditionalWrites, a store that refuses
///   the header gets the request again without it; with it, the write fails.
/// - If the entity tag of an object is the MD5 of its bytes, a response with the whole object is checked against it. A
///   write with a lost response is recognised by such entity tags.
/// - A failure's detail names the operation, the key, the store's status, error code and request id, and a remedy where
///   one is known. It never contains secrets. HEAD responses carry no error document, so after a failed HEAD the client
///   asks for the reason with GET.
///
/// Keys have at most 1,024 bytes. Objects have at most 5 TiB in 10,000 parts, of which all but the last have at least 5
/// MiB. The only process-wide state is the initialisation of libcurl.
class S3Client : public RemoteClient
{
public:
    /// Sends nothing: a missing bucket is reported by the first operation.
    /// @throws cloudprovider::InvalidLocationException when the settings are not a valid address
    explicit S3Client(const s3::S3Settings& settings);
};

} // namespace storage::clients
