#pragma once

#include "Change.hpp"

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
std::int64_t beginUpload(Change& change, const std::string& key);

/// Find the upload that a client names by the text of its number.
///
/// @throws Failure when there is none of this number for this key
std::int64_t requireUpload(Connection& index, const std::string& key, const std::string& id);

/// List all that are open, in the order in which they began.
std::vector<PendingUpload> listUploads(Connection& index);

/// Make the content the part, in place of what was sent for it before. One reference of it is the upload's from now on.
void setUploadPart(Change& change, std::int64_t upload, std::size_t part, std::int64_t content);

/// End the upload and drop what was sent.
void endUpload(Change& change, std::int64_t upload);

/// Make the parts the object under the key, and end the upload. Not a byte of them is moved.
///
/// @return bytes of the object
std::uint64_t completeUpload(
    Change& change, const std::string& key, std::int64_t upload, const std::vector<cloudprovider::PartInfo>& parts);

} // namespace storage::clients::local
