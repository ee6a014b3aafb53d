#include "PartGroup.hpp"

#include <algorithm>
#include <bit>

namespace storage::clients
{

PartGroup groupOf(std::size_t index, std::size_t ungrouped, const StoreAbilities& store)
{
    if (store.equalParts || index < ungrouped)
    {
        return {index + 1, index, 1};
    }
    // There are 2 * scale groups of one part, and scale / n groups of n parts for each larger n. Until the file has
    // x * scale parts, that takes about scale * (ln(x) + 1.6) numbers, which has to be at most all of them.
    const std::size_t numbers = store.maxParts - std::min(store.maxParts, ungrouped);
    const std::uint64_t parts = store.maxObjectSize / store.minPartSize / std::max<std::size_t>(numbers, 1);
    const std::size_t scale = std::max<std::size_t>(numbers / (std::bit_width(parts + 3) + 2U), 1);
    const std::size_t maxCount = store.maxPartSize / store.minPartSize;
    PartGroup group{1, 0, 1};
    while (group.end() <= index - ungrouped)
    {
        ++group.number;
        group.first = group.end();
        group.count = std::clamp<std::size_t>(group.first / scale, 1, maxCount);
    }
    group.number += ungrouped;
    group.first += ungrouped;
    return group;
}

} // namespace storage::clients
