#include "BufferPool.hpp"

#include <utility>

namespace storage::clients
{

BufferPool::Lease::Lease(BufferPool& pool, Chunks chunk)
    : m_pool(pool)
    , m_chunk(std::move(chunk))
{
}

BufferPool::Lease::~Lease()
{
    if (m_chunk.empty())
    {
        return;
    }
    setKept(false);
    Chunks dropped; // freed after the lock is released
    const std::lock_guard lock(m_pool.m_mutex);
    m_pool.m_lentBytes -= m_chunk.front().capacity;
    m_pool.m_freeBytes += m_chunk.front().capacity;
    m_pool.m_free.splice(m_pool.m_free.end(), m_chunk);
    if (m_pool.m_lentBytes == 0)
    {
        dropped.swap(m_pool.m_free);
        m_pool.m_freeBytes = 0;
    }
    m_pool.m_changed.notify_all();
}

void BufferPool::Lease::setKept(bool isKept)
{
    if (std::exchange(m_isKept, isKept) == isKept)
    {
        return;
    }
    const std::uint64_t capacity = m_chunk.front().capacity;
    const std::lock_guard lock(m_pool.m_mutex);
    m_pool.m_keptBytes = isKept ? m_pool.m_keptBytes + capacity : m_pool.m_keptBytes - capacity;
    m_pool.m_changed.notify_all();
}

BufferPool::BufferPool(std::uint64_t limit)
    : m_limit(limit)
{
}

std::optional<BufferPool::Lease> BufferPool::acquire(std::size_t size)
{
    std::unique_lock lock(m_mutex);
    const auto isImpossible = [&] { return size > m_limit - m_keptBytes; };
    m_changed.wait(lock, [&] { return isImpossible() || size <= m_limit - m_lentBytes; });
    if (isImpossible())
    {
        return std::nullopt;
    }
    return Lease(*this, take(size));
}

std::optional<BufferPool::Lease> BufferPool::tryAcquire(std::size_t size)
{
    const std::lock_guard lock(m_mutex);
    if (size > m_limit - m_lentBytes)
    {
        return std::nullopt;
    }
    return Lease(*this, take(size));
}

BufferPool::Chunks BufferPool::take(std::size_t size)
{
    Chunks chunk;
    if (const auto fitting = bestFree(size); fitting != m_free.end())
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
BufferPool::Chunks::iterator BufferPool::bestFree(std::size_t size)
{
    auto best = m_free.end();
    for (auto chunk = m_free.begin(); chunk != m_free.end(); ++chunk)
    {
        // A small part must not occupy a large buffer.
        const bool fits = chunk->capacity >= size && chunk->capacity / 2 <= size;
        if (fits && (best == m_free.end() || chunk->capacity < best->capacity))
        {
            best = chunk;
        }
    }
    return best;
}

} // namespace storage::clients
