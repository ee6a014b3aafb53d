#include "InterruptibleWriter.hpp"
#include "Interrupt.hpp"

#include <gtest/gtest.h>

#include <array>
#include <csignal>
#include <cstdlib>
#include <fcntl.h>
#include <poll.h>
#include <string>
#include <sys/socket.h>
#include <thread>
#include <unistd.h>

namespace cloudfs
{

namespace
{

// The reader stalls, and the thread that writes receives no signals.
[[noreturn]] void writeUntilInterrupted(int descriptor)
{
    interrupt::install();
    const int flags = ::fcntl(descriptor, F_GETFL);
    bool isInterrupted = false;
    std::jthread writer(
        [&]
        {
            interrupt::blockSignalsInThisThread();
            try
            {
                [[maybe_unused]] const auto error = InterruptibleWriter(descriptor).write(std::string(10 << 20, 'x'));
            }
            catch (const interrupt::Interrupted&)
            {
                isInterrupted = true;
            }
        });
    pollfd space{descriptor, POLLOUT, 0};
    while (::poll(&space, 1, 0) > 0) // until it is full
    {
        std::this_thread::yield();
    }
    ::kill(::getpid(), SIGTERM);
    writer.join();
    std::_Exit(isInterrupted && ::fcntl(descriptor, F_GETFL) == flags ? 0 : 1);
}

TEST(InterruptibleWriterTest, StopsWaitingForAReaderWhenASignalArrives)
{
    std::array<int, 2> pipe{}, sockets{};
    ASSERT_EQ(::pipe(pipe.data()), 0);
    ASSERT_EQ(::socketpair(AF_UNIX, SOCK_STREAM, 0, sockets.data()), 0);
    const int terminal = ::posix_openpt(O_RDWR | O_NOCTTY);
    ASSERT_TRUE(::grantpt(terminal) == 0 && ::unlockpt(terminal) == 0);
    const int userSide = ::open(::ptsname(terminal), O_WRONLY | O_NOCTTY);
    for (const int descriptor : {pipe[1], sockets[0], userSide})
    {
        EXPECT_EXIT(writeUntilInterrupted(descriptor), testing::ExitedWithCode(0), "") << descriptor;
    }
    for (const int descriptor : {pipe[0], pipe[1], sockets[0], sockets[1], terminal, userSide})
    {
        ::close(descriptor);
    }
}

} // namespace

} // namespace cloudfs
