#pragma once

#include <storage/cloudprovider/CloudClient.hpp>

#include <cstdint>
#include <string>
#include <vector>

namespace storage::clients::s3
{

/// Cut a stored object into parts, however it was written: a read or a copy takes any range of it.
///
/// Parts are of `partSize` bytes, so that touching a byte moves little. Of a large object they are larger, so that they
/// come to half of the parts that the store takes at most: the others are left for what is appended. Of one that is
/// hardly larger than a part must be at least, they are no smaller than that: the unchanged ones before the last would
/// otherwise not fill a part of the new object.
/// After several small ones comes one without bytes: what is appended then begins a part of its own, and nothing must
/// be fetched and sent again for it.
/// @return at least one part; one of no bytes for an empty object
std::vector<cloudprovider::PartInfo> cutIntoParts(
    std::uint64_t objectSize, const std::string& tag, std::uint64_t partSize);

} // namespace storage::clients::s3
