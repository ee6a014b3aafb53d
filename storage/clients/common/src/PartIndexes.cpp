#include <storage/clients/common/PartIndexes.hpp>

#include <iterator>
#include <ostream>

namespace storage::clients
{

void PartIndexes::insert(std::size_t index)
{
    const auto after = m_ranges.upper_bound(index);
    const auto before = after == m_ranges.begin() ? m_ranges.end() : std::prev(after);
    if (before != m_ranges.end() && index <= before->second)
    {
        return;
    }
    const bool extendsBefore = before != m_ranges.end() && before->second + 1 == index;
    const bool extendsAfter = after != m_ranges.end() && index + 1 == after->first;
    if (!extendsBefore && !extendsAfter && m_ranges.size() == maxRanges)
    {
        m_complete = false;
        return;
    }

    const std::size_t last = extendsAfter ? after->second : index;
    if (extendsAfter)
    {
        m_ranges.erase(after);
    }
    if (extendsBefore)
    {
        before->second = last;
    }
    else
    {
        m_ranges.emplace(index, last);
    }
}

bool PartIndexes::contains(std::size_t index) const
{
    const auto after = m_ranges.upper_bound(index);
    return after != m_ranges.begin() && index <= std::prev(after)->second;
}

std::ostream& operator<<(std::ostream& out, const PartIndexes& indexes)
{
    const char* separator = "";
    for (const auto& [first, last] : indexes.m_ranges)
    {
        out << separator << first;
        if (last != first)
        {
            out << '-' << last;
        }
        separator = ",";
    }
    return indexes.m_complete ? out : out << separator << "...";
}

} // namespace storage::clients
