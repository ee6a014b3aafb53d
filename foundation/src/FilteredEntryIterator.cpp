#include "FilteredEntryIterator.hpp"

#include <string_view>
#include <utility>

namespace foundation::storage::provider
{

FilteredEntryIterator::FilteredEntryIterator(FolderEntryIteratorPtr inner, const std::u16string& pattern)
    : m_pattern(std::make_shared<const WildcardPattern>(pattern))
    , m_inner(std::move(inner))
{
    findNext();
}

FilteredEntryIterator::FilteredEntryIterator(const FilteredEntryIterator& other)
    : IClonableFolderEntryIterator<FilteredEntryIterator>(other)
    , m_pattern(other.m_pattern)
    , m_inner(other.m_inner->clone())
    , m_current(other.m_current)
    , m_next(other.m_next)
    , m_failure(other.m_failure)
{
}

FolderEntry FilteredEntryIterator::getCurrent() const
{
    return m_current.value();
}

bool FilteredEntryIterator::hasNext() const
{
    return m_next.has_value();
}

void FilteredEntryIterator::next()
{
    m_current = std::exchange(m_next, std::nullopt);
    const std::exception_ptr failure = std::exchange(m_failure, nullptr);
    findNext();
    if (failure)
    {
        std::rethrow_exception(failure);
    }
}

void FilteredEntryIterator::findNext()
{
    while (!m_next && m_inner->hasNext())
    {
        try
        {
            m_inner->next();
        }
        catch (...)
        {
            m_failure = std::current_exception(); // getCurrent() returns this entry, but later ones are missing
        }
        FolderEntry entry = m_inner->getCurrent();
        const std::u16string_view name = entry.name();
        if (m_pattern->matches(name.substr(name.rfind(u'/') + 1)))
        {
            m_next = std::move(entry);
        }
    }
    if (!m_next && m_failure)
    {
        std::rethrow_exception(std::exchange(m_failure, nullptr));
    }
}

} // namespace foundation::storage::provider
