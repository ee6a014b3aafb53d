#pragma once

#include "StoreTransaction.hpp"

#include <storage/clients/common/UploadInventory.hpp>
#include <storage/cloudprovider/CloudClient.hpp>

#include <cstdint>
#include <string>
#include <vector>

namespace storage::clients::local
{

// Multipart uploads. They stay in the index until they are completed or aborted, even if the process that began them
// has ended.

/// Begin an upload.
///
/// @return its id
std::int64_t beginUpload(StoreTransaction& transaction, const std::string& key);

/// Find an upload.
///
/// @param uploadId  its id as text, as createMultipartUpload() returned it
/// @throws StoreError when this key has no upload with this id
std::int64_t requireUpload(Connection& index, const std::string& key, const std::string& uploadId);

/// List the open uploads, oldest first.
std::vector<PendingUpload> listUploads(Connection& index);

/// Store the content as a part, replacing what was sent for it before. Takes over one reference to the content.
void setUploadPart(StoreTransaction& transaction, std::int64_t upload, std::size_t part, std::int64_t content);

/// End the upload and drop its parts.
void endUpload(StoreTransaction& transaction, std::int64_t upload);

/// Make the listed parts the object under the key, and end the upload. No bytes are moved.
///
/// @throws UnknownErrorException from checkPartList()
void completeUpload(StoreTransaction& transaction, const std::string& key, std::int64_t upload,
    const std::vector<cloudprovider::PartInfo>& parts);

} // namespace storage::clients::local
