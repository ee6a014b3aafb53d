#pragma once

#include <condition_variable>
#include <mutex>

// Attributes of clang's thread-safety analysis (-Wthread-safety). Other compilers ignore them.
#ifdef __clang__
#define THREAD_SAFETY(attribute) __attribute__((attribute))
#else
#define THREAD_SAFETY(attribute)
#endif

/// On a member: it is read and written only while the mutex is held.
#define GUARDED_BY(mutex) THREAD_SAFETY(guarded_by(mutex))
/// On a function: the caller holds the mutex.
#define REQUIRES(mutex) THREAD_SAFETY(requires_capability(mutex))

namespace storage::cloudprovider
{

/// std::mutex for the analysis. Lock it with MutexLock.
class THREAD_SAFETY(capability("mutex")) Mutex
{
    friend class MutexLock;
    std::mutex m_mutex;
};

/// Holds a mutex to the end of its scope.
class THREAD_SAFETY(scoped_lockable) MutexLock
{
public:
    explicit MutexLock(Mutex& mutex) THREAD_SAFETY(acquire_capability(mutex))
        : m_lock(mutex.m_mutex)
    {
    }
    MutexLock(const MutexLock&) = delete;
    MutexLock& operator=(const MutexLock&) = delete;
    ~MutexLock() THREAD_SAFETY(release_capability()) {}

private:
    friend class ConditionVariable;
    std::unique_lock<std::mutex> m_lock;
};

/// std::condition_variable for a MutexLock. Wait in a loop that tests the condition: the analysis does not see that the
/// mutex is held inside a predicate.
class ConditionVariable
{
public:
    void wait(MutexLock& lock) { m_condition.wait(lock.m_lock); }
    void notify_one() { m_condition.notify_one(); }
    void notify_all() { m_condition.notify_all(); }

private:
    std::condition_variable m_condition;
};

} // namespace storage::cloudprovider
