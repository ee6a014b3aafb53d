#include "PartCutting.hpp"

#include <algorithm>

namespace storage::clients
{

namespace
{

constexpr std::uint64_t maxGrownSize = 8U << 20; // bytes; what reading one byte of an object of up to 5 TiB may move
constexpr std::uint64_t maxOpenParts = 5ULL * (1U << 20U) / 8; // of that object; an open file needs memory for each

} // namespace

std::vector<cloudprovider::PartInfo> cutIntoParts(
    const Version& object, std::uint64_t partSize, const StoreAbilities& store)
{
    const std::uint64_t maxCount = store.maxParts / 2;
    if (object.size > maxCount * partSize)
    {
        const std::uint64_t grown = partSize * (object.size / maxCount / partSize + 1); // round numbers
        partSize =
            store.equalParts ? grown : std::min(grown, std::max({partSize, maxGrownSize, object.size / maxOpenParts}));
    }
    if (object.size < store.minPartSize + partSize)
    {
        partSize = std::max(partSize, store.minPartSize);
    }
    std::vector<cloudprovider::PartInfo> parts;
    parts.reserve(object.size / partSize + 2);
    std::uint64_t offset = 0;
    do
    {
        const std::uint64_t size = std::min(partSize, object.size - offset);
        parts.push_back({parts.size(), offset, size, object.tag});
        offset += size;
    } while (offset < object.size);
    if (parts.size() > 1 && partSize < store.minPartSize)
    {
        parts.push_back({parts.size(), offset, 0, object.tag});
    }
    return parts;
}

} // namespace storage::clients
