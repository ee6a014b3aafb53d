#include "Interrupt.hpp"

#include <foundation/interrupt/utInterruptState.hpp>

#include <array>
#include <atomic>
#include <cerrno>
#include <csignal>
#include <fcntl.h>
#include <poll.h>
#include <system_error>
#include <unistd.h>

namespace cloudfs::interrupt
{

namespace
{

std::atomic<int> caughtSignal{0}; // for exitStatus() only; utInterruptState is the flag
static_assert(std::atomic<int>::is_always_lock_free, "a signal handler sets it");

// The handler writes one byte, which is never read. Every later poll() then returns at once, so a signal that arrives
// between the check and poll() is not lost.
std::array<int, 2> wakeUpPipe{-1, -1};

constexpr std::array endingSignals{SIGHUP, SIGINT, SIGTERM}; // SIGHUP: the terminal was closed

extern "C" void onSignal(int signal)
{
    const int savedError = errno;
    caughtSignal = signal;
    utInterruptState::RequestInterrupt();
    [[maybe_unused]] const auto written = ::write(wakeUpPipe[1], "", 1);
    errno = savedError;
}

void handleSignals()
{
    struct sigaction action = {};
    action.sa_handler = onSignal;
    action.sa_flags = static_cast<int>(SA_RESETHAND); // without SA_RESTART, so that blocking calls return
    for (const int signal : endingSignals)
    {
        struct sigaction inherited = {};
        ::sigaction(signal, nullptr, &inherited);
        if (inherited.sa_handler != SIG_IGN) // shells let background jobs ignore Ctrl-C, nohup SIGHUP
        {
            ::sigaction(signal, &action, nullptr);
        }
    }
}

} // namespace

void install()
{
    if (::pipe2(wakeUpPipe.data(), O_CLOEXEC | O_NONBLOCK) != 0)
    {
        throw std::system_error(errno, std::generic_category(), "pipe");
    }
    handleSignals();
    // The default actions would leave temporary files behind. Ignored, the write fails with EPIPE or EFBIG.
    std::signal(SIGPIPE, SIG_IGN);
    std::signal(SIGXFSZ, SIG_IGN);
}

void reset()
{
    std::array<char, 16> bytes{};
    [[maybe_unused]] const auto count = ::read(wakeUpPipe[0], bytes.data(), bytes.size());
    utInterruptState::ClearInterrupt();
    handleSignals();
}

void blockSignalsInThisThread()
{
    sigset_t signals;
    sigemptyset(&signals);
    for (const int signal : endingSignals)
    {
        sigaddset(&signals, signal);
    }
    ::pthread_sigmask(SIG_BLOCK, &signals, nullptr);
}

bool isPending() noexcept
{
    return utInterruptState::IsInterruptPending();
}

void throwIfPending()
{
    if (isPending())
    {
        throw Interrupted();
    }
}

int exitStatus() noexcept
{
    return 128 + caughtSignal;
}

void waitUntilReady(int descriptor, short events)
{
    std::array<pollfd, 2> watched{pollfd{descriptor, events, 0}, pollfd{wakeUpPipe[0], POLLIN, 0}};
    do
    {
        throwIfPending();
        // poll() reports an unusable descriptor as ready; the read or write that follows then fails.
    } while (::poll(watched.data(), watched.size(), -1) < 0 && errno == EINTR);
    throwIfPending();
}

} // namespace cloudfs::interrupt
