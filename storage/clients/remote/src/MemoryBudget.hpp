#pragma once

#include <condition_variable>
#include <cstddef>
#include <cstdint>
#include <list>
#include <memory>
#include <mutex>
#include <optional>

namespace storage::clients
{

/// All buffers of one client, with a bounded total size. A returned buffer is reused while others are on loan, so a
/// long transfer allocates no more than the bound, however many bytes it moves. When the last buffer on loan is
/// returned, all memory goes back to the system. Safe for concurrent calls.
///
/// Two kinds of borrowers share it. Parts of uploads wait for space, and always return it soon. Prefetched ranges never
/// wait, may be kept for any time, and get at most half of the bytes: so a part waits only for other parts.
class MemoryBudget
{
    struct Chunk
    {
        std::unique_ptr<char[]> bytes;
        std::size_t capacity = 0;
    };
    using Chunks = std::list<Chunk>; // splicing a node cannot fail, so returning a buffer cannot

public:
    /// A buffer on loan, which the destructor returns. For one thread at a time. Must not outlive the budget.
    class Lease
    {
    public:
        Lease(Lease&&) noexcept = default;
        Lease& operator=(Lease&&) = delete;
        ~Lease();

        char* data() noexcept { return m_chunk.front().bytes.get(); }

    private:
        friend class MemoryBudget;
        Lease(MemoryBudget& budget, Chunks chunk, bool isPrefetch);

        MemoryBudget& m_budget;
        Chunks m_chunk; // one; none after this was moved from
        bool m_isPrefetch;
    };

    /// @param limit  maximum bytes of all buffers, free ones included
    explicit MemoryBudget(std::uint64_t limit);

    /// Borrow a buffer of at least `size` uninitialized bytes for a part. Waits until there is enough space.
    /// @return nullopt if `size` exceeds the half of the limit that parts always have
    std::optional<Lease> acquireForPart(std::size_t size);

    /// Borrow a buffer of at least `size` uninitialized bytes for a prefetched range. Never waits.
    /// @return nullopt if there is no space now
    std::optional<Lease> tryAcquireForPrefetch(std::size_t size);

private:
    Chunks take(std::size_t size, std::uint64_t maxCapacity);
    Chunks::iterator bestFree(std::size_t size, std::uint64_t maxCapacity);

    const std::uint64_t m_limit;
    std::mutex m_mutex;                // innermost; guards all members below
    std::condition_variable m_changed; // buffers were returned
    Chunks m_free;
    std::uint64_t m_freeBytes = 0;
    std::uint64_t m_lentBytes = 0;     // with m_freeBytes at most the limit
    std::uint64_t m_prefetchBytes = 0; // part of m_lentBytes
};

} // namespace storage::clients
