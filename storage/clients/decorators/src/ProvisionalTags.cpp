#include "ProvisionalTags.hpp"

#include <fmt/format.h>

#include <random>
#include <utility>

namespace storage::clients
{

namespace
{

std::string newPrefix()
{
    std::random_device random;
    return fmt::format("part-{:08x}{:08x}-", random(), random());
}

} // namespace

ProvisionalTags::ProvisionalTags()
    : m_prefix(newPrefix())
{
}

std::string ProvisionalTags::make()
{
    return m_prefix + std::to_string(++m_count);
}

void ProvisionalTags::remember(const std::string& provisional, std::string inner)
{
    m_insertionOrder.push_back(m_inner.emplace(provisional, std::move(inner)).first);
    if (m_insertionOrder.size() > maxRemembered)
    {
        m_inner.erase(m_insertionOrder.front());
        m_insertionOrder.pop_front();
    }
}

std::optional<std::string> ProvisionalTags::find(const std::string& provisional) const
{
    const auto entry = m_inner.find(provisional);
    return entry == m_inner.end() ? std::nullopt : std::optional(entry->second);
}

} // namespace storage::clients
