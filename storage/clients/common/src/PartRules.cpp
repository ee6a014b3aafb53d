#include <storage/clients/common/KeyRules.hpp>
#include <storage/clients/common/PartRules.hpp>

#include <storage/cloudprovider/CloudExceptions.hpp>

#include <fmt/format.h>

#include <algorithm>

namespace storage::clients
{

using cloudprovider::PartInfo;
using cloudprovider::UnknownErrorException;

void checkPartList(const std::string& key, const std::vector<PartInfo>& parts,
    const std::function<std::optional<SentPart>(std::size_t index)>& sent)
{
    const auto refuse = [&](const std::string& reason) {
        throw UnknownErrorException(
            "Invalid parts", fmt::format("completing the upload of {}: {}", quoted(key), reason));
    };
    if (parts.empty())
    {
        refuse("no parts are listed");
    }
    for (std::size_t i = 0; i < parts.size(); ++i)
    {
        const PartInfo& part = parts[i];
        if (i > 0 && part.Index <= parts[i - 1].Index)
        {
            refuse(fmt::format("part {} is listed after part {}", part.Index, parts[i - 1].Index));
        }
        const std::optional<SentPart> held = sent(part.Index);
        if (!held)
        {
            refuse(fmt::format("part {} was never sent", part.Index));
        }
        else if (held->tag != part.Tag)
        {
            refuse(fmt::format("part {} has the tag {} but is listed with the tag {}", part.Index, quoted(held->tag),
                quoted(part.Tag)));
        }
        else if (held->size == 0 && i + 1 < parts.size())
        {
            refuse(fmt::format("part {} has no bytes and is not the last", part.Index));
        }
    }
}

void checkCopySource(const std::string& key, const PartInfo& part, const std::vector<PartInfo>& stored)
{
    // Without sums of offset and size, which could overflow.
    const auto holds = [&](std::size_t offset, std::size_t size)
    { return part.Offset >= offset && part.Offset - offset <= size && part.Size <= size - (part.Offset - offset); };
    const std::size_t objectSize = stored.empty() ? 0 : stored.back().Offset + stored.back().Size;
    const auto refuse = [&](const std::string& reason)
    {
        throw UnknownErrorException("Part cannot be copied",
            fmt::format("copying {} bytes at {} of {}: {}", part.Size, part.Offset, quoted(key), reason));
    };
    if (!holds(0, objectSize))
    {
        refuse(fmt::format("the object has {} bytes", objectSize));
    }
    if (!part.Tag.empty() && std::none_of(stored.begin(), stored.end(),
                                 [&](const PartInfo& candidate)
                                 { return candidate.Tag == part.Tag && holds(candidate.Offset, candidate.Size); }))
    {
        refuse(fmt::format("the object has changed: it has no part with the tag {} at this offset", quoted(part.Tag)));
    }
}

} // namespace storage::clients
