#pragma once

#include "StoreTransaction.hpp"

#include <storage/clients/common/UploadInventory.hpp>
#include <storage/cloudprovider/CloudClient.hpp>

#include <cstdint>
#include <string>
#include <vector>

namespace storage::clients::local
{

// Uploads in parts, which live in the index until they are completed or aborted, whoever began them and however that
// process ended.

/// Begin one.
///
/// @return its number
std::int64_t beginUpload(StoreTransaction& transaction, const std::string& key);

/// Find the upload that a client names by the text of its number.
///
/// @throws StoreError when there is none of this number for this key
std::int64_t requireUpload(Connection& index, const std::string& key, const std::string& id);

/// List all that are open, in the order in which they began.
std::vector<PendingUpload> listUploads(Connection& index);

/// Make the content the part, in place of what was sent for it before. One reference of it is the upload's from now on.
void setUploadPart(StoreTransaction& transaction, std::int64_t upload, std::size_t part, std::int64_t content);

/// End the upload and drop what was sent.
void endUpload(StoreTransaction& transaction, std::int64_t upload);

/// Make the parts the object under the key, and end the upload. Not a byte of them is moved.
///
/// @return bytes of the object
std::uint64_t completeUpload(StoreTransaction& transaction, const std::string& key, std::int64_t upload,
    const std::vector<cloudprovider::PartInfo>& parts);

} // namespace storage::clients::local
