#pragma once

/// Ctrl-C and SIGTERM: whatever is going on stops at its next step, and nothing half-written becomes visible.
namespace cloudfs::interrupt
{

/// Thrown where work stops because the user asked for it. No failure, and so no std::exception.
struct Interrupted
{
};

/// Let SIGINT and SIGTERM stop this process cleanly: the stores refuse every commit from then on, listings end, and
/// isPending() is true. A second signal of the same kind kills. Writing into a closed pipe is left to the writer.
void install();

/// Keep the signals of install() away from the calling thread and the threads that it starts, so that they interrupt
/// the blocking calls of the main thread.
void blockSignalsInThisThread();

bool isPending() noexcept;

/// @throws Interrupted
void throwIfPending();

/// What the process exits with after an interrupt: 128 and the signal, as a shell reports it.
int exitStatus() noexcept;

/// Wait until a descriptor can be read or written, or is at its end.
///
/// @param events  POLLIN or POLLOUT
/// @throws Interrupted, at once when the signal comes during the wait
void waitUntilReady(int descriptor, short events);

} // namespace cloudfs::interrupt
