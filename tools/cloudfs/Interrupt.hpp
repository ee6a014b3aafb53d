#pragma once

/// Ctrl-C, SIGTERM and a closed terminal (SIGHUP): the command stops at its next step, and no partial file becomes
/// visible.
namespace cloudfs::interrupt
{

/// Thrown when the user has interrupted the program. Not a std::exception, because it is not an error.
struct Interrupted
{
};

/// Forget the signal that has arrived, so that the next one is noticed, too.
void reset();

/// Install handlers for SIGINT, SIGTERM and SIGHUP, except for those that the caller ignores. After a signal the store
/// refuses every commit, listings end, and isPending() is true. A second signal of the same kind kills the process.
///
/// SIGPIPE and SIGXFSZ are ignored, so that writing to a closed pipe fails with EPIPE and beyond the limit of the file
/// size with EFBIG. Call once, before any thread starts.
/// @throws std::system_error
void install();

/// Block these signals in the calling thread and the threads that it starts, so that the main thread receives them
/// and its blocking calls return.
void blockSignalsInThisThread();

/// Return whether a signal has arrived.
bool isPending() noexcept;

/// @throws Interrupted
void throwIfPending();

/// Return the exit status after an interrupt: 128 plus the number of the signal.
int exitStatus() noexcept;

/// Wait until a descriptor can be read or written, is at its end, or has failed.
///
/// @param events  POLLIN or POLLOUT
/// @throws Interrupted, also if the signal arrives during the wait
void waitUntilReady(int descriptor, short events);

} // namespace cloudfs::interrupt
