#pragma once

#include <storage/cloudprovider/CloudClient.hpp>

#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

namespace storage::clients::s3
{

constexpr std::size_t mostParts = 10'000;            ///< of one object
constexpr std::size_t leastPartSize = 5 << 20;       ///< bytes; of every part but the last
constexpr std::uint64_t largestObject = 5ULL << 40U; ///< bytes

/// Cut a stored object into parts, however it was written: a copy takes any range of it.
///
/// Parts are as small as the store allows, so that touching a byte moves little. Of a large object they are larger, so
/// that they come to half of the parts that the store takes at most: the others are left for what is appended.
/// @return at least one part; one of no bytes for an empty object
std::vector<cloudprovider::PartInfo> cutIntoParts(std::uint64_t objectSize, const std::string& tag);

} // namespace storage::clients::s3
