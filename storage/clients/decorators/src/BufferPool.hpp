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

/// A pool of buffers with a bounded total size. A returned buffer is reused while others are on loan, so a long
/// transfer allocates no more than the bound, however many bytes it moves. When the last buffer on loan is returned,
/// all memory goes back to the system. Safe for concurrent calls.
class BufferPool
{
    struct Chunk
    {
        std::unique_ptr<char[]> bytes;
        std::size_t capacity = 0;
    };
    using Chunks = std::list<Chunk>; // splicing a node cannot fail, so returning a buffer cannot

public:
    /// A buffer on loan, which the destructor returns. For one thread at a time. Must not outlive the pool.
    class Lease
    {
    public:
        Lease(Lease&&) noexcept = default;
        Lease& operator=(Lease&&) = delete;
        ~Lease();

        char* data() noexcept { return m_chunk.front().bytes.get(); }

        /// Mark the buffer as kept for an unknown time, or no longer. acquire() never waits for a kept buffer.
        void setKept(bool isKept);

    private:
        friend class BufferPool;
        Lease(BufferPool& pool, Chunks chunk);

        BufferPool& m_pool;
        Chunks m_chunk; // one; none after this was moved from
        bool m_isKept = false;
    };

    /// @param limit  maximum bytes of all buffers, free ones included
    explicit BufferPool(std::uint64_t limit);

    /// Borrow a buffer of at least `size` uninitialized bytes. Waits until there is enough space.
    /// @return nullopt if waiting cannot help, because the kept buffers leave too little space
    std::optional<Lease> acquire(std::size_t size);

    /// Borrow a buffer of at least `size` uninitialized bytes. Never waits. @return nullopt if there is no space now
    std::optional<Lease> tryAcquire(std::size_t size);

private:
    Chunks take(std::size_t size);
    Chunks::iterator bestFree(std::size_t size);

    const std::uint64_t m_limit;
    std::mutex m_mutex;                // innermost; guards all members below
    std::condition_variable m_changed; // buffers were returned, or marked as kept or not
    Chunks m_free;
    std::uint64_t m_freeBytes = 0;
    std::uint64_t m_lentBytes = 0; // with m_freeBytes at most the limit
    std::uint64_t m_keptBytes = 0; // part of m_lentBytes
};

} // namespace storage::clients
