#include "OwnTags.hpp"

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

OwnTags::OwnTags()
    : m_prefix(newPrefix())
{
}

std::string OwnTags::make()
{
    return m_prefix + std::to_string(++m_count);
}

void OwnTags::remember(const std::string& own, std::string inner)
{
    m_inOrder.push_back(m_inner.emplace(own, std::move(inner)).first);
    if (m_inOrder.size() > mostRemembered)
    {
        m_inner.erase(m_inOrder.front());
        m_inOrder.pop_front();
    }
}

std::optional<std::string> OwnTags::find(const std::string& own) const
{
    const auto entry = m_inner.find(own);
    return entry == m_inner.end() ? std::nullopt : std::optional(entry->second);
}

} // namespace storage::clients
