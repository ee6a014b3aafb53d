#pragma once

#include <storage/cloudprovider/CloudClient.hpp>

#include <cstddef>
#include <functional>
#include <optional>
#include <string>
#include <vector>

namespace storage::clients
{

/// A part of an open upload.
struct SentPart
{
    std::string tag;      ///< returned when it was last uploaded or copied
    std::size_t size = 0; ///< bytes
};

/// Check the list of parts that was passed to completeMultipartUpload().
///
/// Refused are: an empty list, indexes that do not ascend, a part that was never sent, a tag that is not that of the
/// part's last upload, and an empty part before the last one. Indexes may have gaps. Offset and Size are ignored: the
/// bytes that were sent count.
/// @param sent  returns the part of the upload with this index, or nullopt
/// @throws UnknownErrorException whose detail names the first part that is refused; also what `sent` throws
void checkPartList(const std::string& key, const std::vector<cloudprovider::PartInfo>& parts,
    const std::function<std::optional<SentPart>(std::size_t index)>& sent);

/// Check that a part can be copied from the object under a key: that the object has these bytes, and has not changed
/// since the caller called getObjectParts().
///
/// A part with a tag must lie within a stored part with the same tag. A part without a tag may be any range.
/// @param part    [Offset, Offset + Size) of the object, with the tag that getObjectParts() returned. Its Index is
///                ignored: it belongs to the new object.
/// @param stored  the current parts of the object
/// @throws UnknownErrorException when the range ends beyond the object, or no stored part with the tag contains it
void checkCopySource(
    const std::string& key, const cloudprovider::PartInfo& part, const std::vector<cloudprovider::PartInfo>& stored);

} // namespace storage::clients
