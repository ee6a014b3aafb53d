#include "SmallObjectCache.hpp"

#include <algorithm>
#include <utility>

namespace storage::clients
{

namespace
{

constexpr std::size_t maxEntries = 128; // more than files are opened at a time; few enough for a linear search

} // namespace

void SmallObjectCache::keep(const std::string& key, const std::string& tag, std::string content)
{
    const std::lock_guard lock(m_mutex);
    if (const auto entry = find(key); entry != m_entries.end())
    {
        m_entries.erase(entry);
    }
    if (m_entries.size() == maxEntries)
    {
        m_entries.pop_front();
    }
    m_entries.push_back({key, tag, std::move(content)});
}

std::optional<std::string> SmallObjectCache::take(const std::string& key, const std::string& tag)
{
    const std::lock_guard lock(m_mutex);
    const auto entry = find(key);
    if (entry == m_entries.end() || entry->tag != tag)
    {
        return std::nullopt;
    }
    auto content = std::optional(std::move(entry->content));
    m_entries.erase(entry);
    return content;
}

SmallObjectCache::Entries::iterator SmallObjectCache::find(const std::string& key)
{
    return std::find_if(m_entries.begin(), m_entries.end(), [&](const Entry& entry) { return entry.key == key; });
}

} // namespace storage::clients
