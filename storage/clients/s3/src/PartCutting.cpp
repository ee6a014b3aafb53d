#include "PartCutting.hpp"

#include "UploadPlan.hpp"

#include <algorithm>

namespace storage::clients::s3
{

std::vector<cloudprovider::PartInfo> cutIntoParts(
    std::uint64_t objectSize, const std::string& tag, std::uint64_t partSize)
{
    constexpr std::uint64_t step = 256 << 10; // sizes that a person recognises
    const std::uint64_t most = mostParts / 2;
    if (objectSize > most * partSize)
    {
        partSize = (objectSize / most / step + 1) * step;
    }
    if (objectSize < leastPartSize + partSize)
    {
        partSize = std::max<std::uint64_t>(partSize, leastPartSize);
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
    if (parts.size() > 1 && partSize < leastPartSize)
    {
        parts.push_back({parts.size(), offset, 0, tag});
    }
    return parts;
}

} // namespace storage::clients::s3
