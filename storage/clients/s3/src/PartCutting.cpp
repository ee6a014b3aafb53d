#include "PartCutting.hpp"

#include "UploadPlan.hpp"

#include <algorithm>

namespace storage::clients::s3
{

std::vector<cloudprovider::PartInfo> cutIntoParts(
    std::uint64_t objectSize, const std::string& tag, std::uint64_t partSize)
{
    constexpr std::uint64_t step = 256 << 10; // for round numbers
    const std::uint64_t maxCount = maxParts / 2;
    if (objectSize > maxCount * partSize)
    {
        partSize = (objectSize / maxCount / step + 1) * step;
    }
    if (objectSize < minPartSize + partSize)
    {
        partSize = std::max<std::uint64_t>(partSize, minPartSize);
    }
    std::vector<cloudprovider::PartInfo> parts;
    parts.reserve(objectSize / partSize + 2);
    std::uint64_t offset = 0;
    do
    {
        const std::uint64_t size = std::min(partSize, objectSize - offset);
        parts.push_back({parts.size(), offset, size, tag});
        offset += size;
    } while (offset < objectSize);
    if (parts.size() > 1 && partSize < minPartSize)
    {
        parts.push_back({parts.size(), offset, 0, tag});
    }
    return parts;
}

} // namespace storage::clients::s3
