#include "MemoryBudget.hpp"

#include <algorithm>
#include <utility>

namespace storage::clients
{

MemoryBudget::Lease::Lease(MemoryBudget& budget, Chunks chunk, bool isPrefetch)
    : m_budget(budget)
    , m_chunk(std::move(chunk))
    , m_isPrefetch(isPrefetch)
{
}

MemoryBudget::Lease::~Lease()
{
    if (m_chunk.empty())
    {
        return;
    }
    const std::size_t capacity = m_chunk.front().capacity;
    Chunks dropped; // freed after the lock is released
    const std::lock_guard lock(m_budget.m_mutex);
    m_budget.m_lentBytes -= capacity;
    m_budget.m_prefetchBytes -= m_isPrefetch ? capacity : 0;
    m_budget.m_freeBytes += capacity;
    m_budget.m_free.splice(m_budget.m_free.end(), m_chunk);
    if (m_budget.m_lentBytes == 0)
    {
        dropped.swap(m_budget.m_free);
        m_budget.m_freeBytes = 0;
    }
    m_budget.m_changed.notify_all();
}

MemoryBudget::MemoryBudget(std::uint64_t limit)
    : m_limit(limit)
{
}

std::optional<MemoryBudget::Lease> MemoryBudget::acquireForPart(std::size_t size)
{
    if (size > m_limit - m_limit / 2)
    {
        return std::nullopt;
    }
    std::unique_lock lock(m_mutex);
    m_changed.wait(lock, [&] { return size <= m_limit - m_lentBytes; });
    return Lease(*this, take(size, m_limit), false);
}

std::optional<MemoryBudget::Lease> MemoryBudget::tryAcquireForPrefetch(std::size_t size)
{
    const std::lock_guard lock(m_mutex);
    const std::uint64_t left = m_limit / 2 - m_prefetchBytes;
    if (size > std::min(left, m_limit - m_lentBytes))
    {
        return std::nullopt;
    }
    Lease lease(*this, take(size, left), true);
    m_prefetchBytes += lease.m_chunk.front().capacity;
    return lease;
}

/// @param maxCapacity  of the buffer; at least `size`
MemoryBudget::Chunks MemoryBudget::take(std::size_t size, std::uint64_t maxCapacity)
{
    Chunks chunk;
    if (const auto fitting = bestFree(size, maxCapacity); fitting != m_free.end())
    {
        chunk.splice(chunk.end(), m_free, fitting);
        m_freeBytes -= chunk.front().capacity;
    }
    else
    {
        for (; size > m_limit - m_lentBytes - m_freeBytes; m_free.pop_front())
        {
            m_freeBytes -= m_free.front().capacity;
        }
        chunk.push_back({std::make_unique_for_overwrite<char[]>(size), size});
    }
    m_lentBytes += chunk.front().capacity;
    return chunk;
}

/// Find the smallest free buffer of at least this size that is not much larger. @return the end: there is none
MemoryBudget::Chunks::iterator MemoryBudget::bestFree(std::size_t size, std::uint64_t maxCapacity)
{
    // A small part must not occupy a large buffer.
    const auto fits = [&](const Chunk& chunk)
    { return chunk.capacity >= size && chunk.capacity / 2 <= size && chunk.capacity <= maxCapacity; };
    auto best = m_free.end();
    for (auto chunk = m_free.begin(); chunk != m_free.end(); ++chunk)
    {
        if (fits(*chunk) && (best == m_free.end() || chunk->capacity < best->capacity))
        {
            best = chunk;
        }
    }
    return best;
}

} // namespace storage::clients
