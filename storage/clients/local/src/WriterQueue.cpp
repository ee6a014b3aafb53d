#include "WriterQueue.hpp"

#include "StoreError.hpp"

#include <algorithm>
#include <chrono>

#include <unistd.h>

namespace storage::clients::local
{

WriterQueue::State WriterQueue::enter(Writer& writer, const LockWait& wait)
{
    // The writer in front may be waiting for another process. Let it fail first: then this one finds that process, too.
    constexpr std::chrono::seconds grace{1};
    const auto end = wait.end() > std::chrono::steady_clock::now() ? wait.end() + grace : wait.end();
    std::unique_lock lock(m_mutex);
    if (!m_isWriting)
    {
        m_isWriting = true;
        return State::HasTurn;
    }
    m_waiting.push_back(&writer);
    if (!writer.m_woken.wait_until(lock, end, [&] { return writer.m_state != State::Waiting; }))
    {
        m_waiting.remove(&writer);
        lock.unlock();
        wait.fail("the index", ::getpid());
    }
    writer.m_woken.wait(lock, [&] { return writer.m_state != State::Taken; });
    return writer.m_state;
}

WriterQueue::Writer* WriterQueue::takeNext() noexcept
{
    const std::lock_guard lock(m_mutex);
    const auto next = std::find_if(
        m_waiting.begin(), m_waiting.end(), [](const Writer* writer) { return writer->m_change != nullptr; });
    if (next == m_waiting.end())
    {
        return nullptr;
    }
    m_taken.splice(m_taken.end(), m_waiting, next);
    m_taken.back()->m_state = State::Taken;
    return m_taken.back();
}

void WriterQueue::revert(Writer& writer) noexcept
{
    const std::lock_guard lock(m_mutex);
    m_taken.remove(&writer);
    wake(writer, State::Reverted);
}

void WriterQueue::committed(Writer& first) noexcept
{
    callCommitted(first);
    for (Writer* const writer : m_taken)
    {
        callCommitted(*writer);
    }
    wakeTaken(State::Committed);
}

void WriterQueue::failed(const StoreError& error) noexcept
{
    for (Writer* const writer : m_taken) // an exception each, because several threads must not share the text of one
    {
        try
        {
            throw StoreError(error.kind(), error.what());
        }
        catch (...) // also std::bad_alloc: without an exception, the writer would retry a change that may be stored
        {
            writer->m_failure = std::current_exception();
        }
    }
    wakeTaken(State::Failed);
}

void WriterQueue::endTurn() noexcept
{
    wakeTaken(State::Reverted);
    const std::lock_guard lock(m_mutex);
    m_isWriting = !m_waiting.empty();
    if (m_isWriting)
    {
        Writer& next = *m_waiting.front();
        m_waiting.pop_front();
        wake(next, State::HasTurn);
    }
}

void WriterQueue::callCommitted(Writer& writer) noexcept
try
{
    writer.change().committed();
}
catch (...) // is the failure of that writer alone
{
    writer.m_failure = std::current_exception();
}

// To be called while the mutex is held: the writer ends as soon as it is awake.
void WriterQueue::wake(Writer& writer, State state) noexcept
{
    writer.m_state = state;
    writer.m_woken.notify_one();
}

void WriterQueue::wakeTaken(State state) noexcept
{
    const std::lock_guard lock(m_mutex);
    for (Writer* const writer : m_taken)
    {
        wake(*writer, state);
    }
    m_taken.clear();
}

} // namespace storage::clients::local
