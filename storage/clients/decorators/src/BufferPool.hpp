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

/// Buffers of bounded size together. What is given back is used again while others are on loan, so that a long transfer
/// allocates no more than the bound, however many bytes go through. With the last one all memory goes back to the
/// system. Safe for concurrent calls.
class BufferPool
{
    struct Chunk
    {
        std::unique_ptr<char[]> bytes;
        std::size_t capacity = 0;
    };
    using Chunks = std::list<Chunk>; // so that giving back never fails

public:
    /// A buffer on loan; its destructor gives it back. For one thread at a time, and not to outlive the pool.
    class Lease
    {
    public:
        Lease(Lease&&) noexcept = default;
        Lease& operator=(Lease&&) = delete;
        ~Lease();

        char* data() noexcept { return m_chunk.front().bytes.get(); }

        /// Say whether the buffer is kept until somebody asks for its content again. Nobody waits for such a buffer.
        void setParked(bool parked);

    private:
        friend class BufferPool;
        Lease(BufferPool& pool, Chunks chunk);

        BufferPool& m_pool;
        Chunks m_chunk; // one; none once it was moved on
        bool m_isParked = false;
    };

    /// @param limit  most bytes that are held together, those of free buffers included
    explicit BufferPool(std::uint64_t limit);

    /// Borrow at least `size` bytes, whose values are left as they are. Waits while they are not to be had but will be.
    /// @return nothing, when waiting is in vain: even with everything given back that is not parked there would be less
    std::optional<Lease> acquire(std::size_t size);

    /// Borrow at least `size` bytes, whose values are left as they are, if that needs no waiting.
    std::optional<Lease> tryAcquire(std::size_t size);

private:
    Chunks take(std::size_t size);
    Chunks::iterator bestFree(std::size_t size);

    const std::uint64_t m_limit;
    std::mutex m_mutex;                // innermost; guards all that follows
    std::condition_variable m_changed; // buffers came back, or were parked
    Chunks m_free;
    std::uint64_t m_freeBytes = 0;
    std::uint64_t m_lentBytes = 0;   // with those of free buffers never more than the limit
    std::uint64_t m_parkedBytes = 0; // of those lent
};

} // namespace storage::clients
