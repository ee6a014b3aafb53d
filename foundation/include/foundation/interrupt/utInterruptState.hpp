#pragma once

#include <foundation/Export.hpp>

/// Ask long work of the whole process to stop, for example when the user presses Ctrl-C.
///
/// An interruption stays pending until it is cleared, so all threads that ask will stop. Any thread may call anything
/// here.
class FOUNDATION_EXPORT utInterruptState
{
public:
    /// Ask for an interruption. May be called in a signal handler.
    static void RequestInterrupt() noexcept;

    /// Take the request back, once everybody stopped.
    static void ClearInterrupt() noexcept;

    static bool IsInterruptPending() noexcept;

    /// @throws foundation::core::except::InterruptedException if an interruption is pending
    static void ThrowIfInterruptPending();

    utInterruptState() = delete;
};
