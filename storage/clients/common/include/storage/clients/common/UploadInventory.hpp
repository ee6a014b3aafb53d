#pragma once

#include <boost/date_time/posix_time/ptime.hpp>

#include <string>
#include <vector>

namespace storage::clients
{

/// A multipart upload that was neither completed nor aborted, as the store remembers it.
struct PendingUpload
{
    std::string key;
    std::string uploadId;             ///< what abortMultipartUpload() takes
    boost::posix_time::ptime created; ///< UTC; always a time: its age decides whether an upload may be aborted
};

/// What a client offers beside CloudClient when it can tell which uploads are open, those of other processes and of
/// processes that have ended included. A host finds out with findInterface().
class UploadInventory
{
public:
    virtual ~UploadInventory() = default;

    /// List the open uploads, oldest first. From any thread; uploads may begin and end meanwhile.
    /// @throws cloudprovider::CloudException
    virtual std::vector<PendingUpload> pendingUploads() = 0;
};

} // namespace storage::clients
