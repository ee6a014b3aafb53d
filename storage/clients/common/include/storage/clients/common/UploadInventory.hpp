#pragma once

#include <boost/date_time/posix_time/ptime.hpp>

#include <string>
#include <vector>

namespace storage::clients
{

/// An open multipart upload: one that was neither completed nor aborted.
struct PendingUpload
{
    std::string key;
    std::string uploadId;             ///< for abortMultipartUpload()
    boost::posix_time::ptime created; ///< UTC; never a special value: users decide by age which uploads to abort
};

/// An interface that a client implements besides CloudClient if it can list the open uploads of its store, including
/// those of other processes and of processes that have ended. A host looks for it with findInterface().
class UploadInventory
{
public:
    virtual ~UploadInventory() = default;

    /// List the open uploads, oldest first. Uploads without parts may be missing: many clients tell the store of an
    /// upload with its first part, which may be on its way for a while. May be called from any thread, while uploads
    /// begin and end.
    ///
    /// @throws cloudprovider::CloudException
    virtual std::vector<PendingUpload> pendingUploads() = 0;
};

} // namespace storage::clients
