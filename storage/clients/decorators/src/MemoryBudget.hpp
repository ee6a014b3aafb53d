#pragma once

#include <atomic>
#include <cstdint>

namespace storage::clients
{

/// Bytes that may be in use at a time. Safe for concurrent calls.
class MemoryBudget
{
public:
    explicit MemoryBudget(std::uint64_t limit)
        : m_free(limit)
    {
    }

    /// A share of the budget, given back by its destructor. Not to outlive the budget.
    class Share
    {
    public:
        Share(MemoryBudget& budget, std::uint64_t size)
            : m_budget(budget)
            , m_size(budget.take(size) ? size : 0)
        {
        }
        Share(const Share&) = delete;
        Share& operator=(const Share&) = delete;
        ~Share() { m_budget.m_free += m_size; }

        /// 0: there was not enough left.
        std::uint64_t size() const noexcept { return m_size; }

    private:
        MemoryBudget& m_budget;
        const std::uint64_t m_size;
    };

private:
    bool take(std::uint64_t size)
    {
        std::uint64_t free = m_free;
        while (free >= size)
        {
            if (m_free.compare_exchange_weak(free, free - size))
            {
                return true;
            }
        }
        return false;
    }

    std::atomic<std::uint64_t> m_free;
};

} // namespace storage::clients
