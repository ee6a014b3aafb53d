#include <foundation/interrupt/utInterruptState.hpp>

#include <foundation/core/except/InterruptedException.hpp>

#include <atomic>

namespace
{

std::atomic<bool> interruptPending{false};

// A signal handler must not wait for a lock that the interrupted thread may hold.
static_assert(std::atomic<bool>::is_always_lock_free);

} // namespace

void utInterruptState::RequestInterrupt() noexcept
{
    interruptPending.store(true);
}

void utInterruptState::ClearInterrupt() noexcept
{
    interruptPending.store(false);
}

bool utInterruptState::IsInterruptPending() noexcept
{
    return interruptPending.load();
}

void utInterruptState::ThrowIfInterruptPending()
{
    if (IsInterruptPending())
    {
        throw foundation::core::except::InterruptedException();
    }
}
