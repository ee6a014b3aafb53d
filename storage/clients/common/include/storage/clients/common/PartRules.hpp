#pragma once

#include <storage/cloudprovider/CloudClient.hpp>

#include <cstddef>
#include <functional>
#include <optional>
#include <string>
#include <vector>

namespace storage::clients
{

/// A part as an open upload holds it.
struct SentPart
{
    std::string tag;      ///< given out for its last upload
    std::size_t size = 0; ///< bytes
};

/// Refuse a list of parts that completeMultipartUpload() must not make an object of.
///
/// Refused are: an empty list, indexes that do not ascend, a part that was never sent, a tag that is not that of the
/// part's last upload, and a part without bytes before the last. Indexes may have gaps; Offset and Size are not looked
/// at, since the bytes that were sent decide.
/// @param sent  answers what the upload holds for an index, or nothing
/// @throws UnknownErrorException whose detail names the first part at fault, and whatever `sent` throws
void checkPartList(const std::string& key, const std::vector<cloudprovider::PartInfo>& parts,
    const std::function<std::optional<SentPart>(std::size_t index)>& sent);

/// Refuse to copy a part of an object that has changed since its parts were asked for.
///
/// A part without a tag is not compared. One with a tag must lie within a stored part of that tag.
/// @param part    [Offset, Offset + Size) of the object, with the tag that getObjectParts() gave; its Index is not
///                looked at: it says where the bytes go
/// @param stored  the object's parts now
/// @throws UnknownErrorException when the tag is not found there, or the range lies beyond the object
void checkCopySource(
    const std::string& key, const cloudprovider::PartInfo& part, const std::vector<cloudprovider::PartInfo>& stored);

} // namespace storage::clients
