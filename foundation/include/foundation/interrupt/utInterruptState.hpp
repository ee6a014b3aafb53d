#pragma once

#include <foundation/Export.hpp>

/// Request that all long-running work of the process stops, for example when the user presses Ctrl-C.
///
/// A request stays pending until it is cleared, so every thread that checks for it stops. Any thread may call any of
/// these functions.
class FOUNDATION_EXPORT utInterruptState
{
public:
    /// Request an interruption. Safe to call in a signal handler.
    static void RequestInterrupt() noexcept;

    /// Withdraw the request. Call this once all work has stopped.
    static void ClearInterrupt() noexcept;

    /// Tell whether an interruption was requested and not yet cleared.
    static bool IsInterruptPending() noexcept;

    /// @throws foundation::core::except::InterruptedException if an interruption is pending
    static void ThrowIfInterruptPending();

    utInterruptState() = delete;
};
