#pragma once

#include <condition_variable>
#include <cstddef>
#include <functional>
#include <memory>
#include <mutex>
#include <utility>
#include <vector>

namespace storage::clients
{

/// Lets several threads fetch pieces at the same time and deliver them in order. Each thread buffers one piece until
/// its turn, so the memory is bounded. Safe for concurrent calls.
class InOrder
{
public:
    using Buffer = std::unique_ptr<char[]>;

    /// @param maxSize  bytes of a piece
    explicit InOrder(std::size_t maxSize)
        : m_maxSize(maxSize)
    {
    }
    InOrder(const InOrder&) = delete;
    InOrder& operator=(const InOrder&) = delete;

    /// Memory for a piece, not initialized.
    Buffer takeBuffer()
    {
        const std::lock_guard lock(m_mutex);
        if (m_free.empty())
        {
            return std::make_unique_for_overwrite<char[]>(m_maxSize);
        }
        Buffer buffer = std::move(m_free.back());
        m_free.pop_back();
        return buffer;
    }

    /// Wait until all pieces before this one were delivered, and deliver it. If that throws, call end().
    ///
    /// @param index   of the piece, from 0; each must come from a thread that does not wait for a later one
    /// @param buffer  reused after the delivery
    /// @return false: end() was called, and nothing was delivered
    bool deliver(std::size_t index, Buffer& buffer, const std::function<void(const char* bytes)>& write)
    {
        std::unique_lock lock(m_mutex);
        m_changed.wait(lock, [&] { return m_next == index || m_hasEnded; });
        if (m_hasEnded)
        {
            return false;
        }
        lock.unlock(); // no other thread has its turn now
        write(buffer.get());
        lock.lock();
        ++m_next;
        m_free.push_back(std::move(buffer));
        m_changed.notify_all();
        return true;
    }

    /// Cancel all waits.
    void end()
    {
        const std::lock_guard lock(m_mutex);
        m_hasEnded = true;
        m_changed.notify_all();
    }

private:
    const std::size_t m_maxSize;
    std::mutex m_mutex; // innermost; guards all members below
    std::condition_variable m_changed;
    std::size_t m_next = 0; // index of the piece to be delivered
    bool m_hasEnded = false;
    std::vector<Buffer> m_free;
};

} // namespace storage::clients
