#pragma once

#include "LockWait.hpp"

#include <condition_variable>
#include <exception>
#include <functional>
#include <list>
#include <mutex>

namespace storage::clients::local
{

class Connection;
class StoreError;

/// A change of the index that may share a transaction with those of other threads. Both functions are called by the
/// thread whose transaction it is, and must not wait for other writers.
struct SharedChange
{
    /// Make the change. It is undone if this throws.
    std::function<void(Connection& index)> make;

    /// Called when the change is on the disk, before another writer of this client has its turn.
    std::function<void()> committed;
};

/// The writers of one client, in the order in which they came. One of them has the turn, and so may write to the index.
/// Before it commits, it takes others that wait with a SharedChange, makes their changes in its transaction, each in a
/// savepoint, and commits all of them together. Nobody waits for company: a group is whoever waits by then, and nobody
/// is in it twice, because its members wait until it has ended. Database limits its size. The states of a writer:
///
///     Waiting    in the queue; becomes HasTurn when it is the first one and the turn ends, or Taken, or gives up
///     HasTurn    ends with endTurn()
///     Taken      becomes one of the following
///     Committed  the change is on the disk
///     Reverted   nothing is stored, because the change has failed, or the transaction was rolled back, or there was no
///                room for it. The writer tries again in a transaction that it does not share, and so never sees an
///                error that another one has caused, and is never refused because of a change that is not stored.
///     Failed     the commit has failed, and what is on the disk is unknown
///
/// Safe for concurrent calls.
class WriterQueue
{
public:
    enum class State
    {
        Waiting,
        HasTurn,
        Taken,
        Committed,
        Reverted,
        Failed
    };

    class Writer
    {
    public:
        /// @param change  null: the writer needs a turn of its own. Must outlive this.
        explicit Writer(const SharedChange* change = nullptr)
            : m_change(change)
        {
        }
        Writer(const Writer&) = delete;
        Writer& operator=(const Writer&) = delete;

        /// Throw what has failed in the states Failed and Committed. To be called after enter().
        void throwFailure() const { m_failure ? std::rethrow_exception(m_failure) : void(); }

        const SharedChange& change() const { return *m_change; }

    private:
        friend class WriterQueue;
        const SharedChange* const m_change;
        std::condition_variable m_woken;
        State m_state = State::Waiting; // guarded by WriterQueue::m_mutex
        std::exception_ptr m_failure;   // Taken: changed by the writer that has the turn; then constant
    };

    /// Wait for the turn, or for the writer that takes this one.
    ///
    /// @param wait  a writer that is taken waits longer, until the end of the group
    /// @return HasTurn, Committed, Reverted or Failed
    /// @throws StoreError of kind Locked
    State enter(Writer& writer, const LockWait& wait);

    // All of these are called by the writer that has the turn.

    /// Take the next writer that shares a transaction; null: none is waiting.
    Writer* takeNext() noexcept;

    /// The change of a writer that was taken has failed.
    void revert(Writer& writer) noexcept;

    /// The change of this writer and those of the writers that were taken are on the disk, in this order.
    void committed(Writer& first) noexcept;

    /// Nobody knows whether the changes of the writers that were taken are on the disk.
    void failed(const StoreError& error) noexcept;

    /// Let the next writer have its turn. Writers that were taken are Reverted unless they have another state.
    void endTurn() noexcept;

private:
    static void callCommitted(Writer& writer) noexcept;
    static void wake(Writer& writer, State state) noexcept;
    void wakeTaken(State state) noexcept;

    std::mutex m_mutex;           // innermost
    bool m_isWriting = false;     // guarded by m_mutex; somebody has the turn; if not, nobody waits
    std::list<Writer*> m_waiting; // guarded by m_mutex; the first one is the next
    std::list<Writer*> m_taken;   // guarded by m_mutex; changed by the writer that has the turn
};

} // namespace storage::clients::local
