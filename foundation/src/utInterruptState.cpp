#include <foundation/interrupt/utInterruptState.hpp>

#include <foundation/core/except/InterruptedException.hpp>

#include <atomic>

namespace
{

std::atomic<bool> interruptPending{false};

// A signal handler may touch nothing that could wait for the thread it interrupted.
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
