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
#include <tuple>
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
    std::jthread writer(
        [&]
        {
            interrupt::blockSignalsInThisThread();
            const auto write = [&] { return InterruptibleWriter(descriptor).write(std::string(10 << 20, 'x')); };
            EXPECT_THROW(std::ignore = write(), interrupt::Interrupted);
        });
    pollfd space{descriptor, POLLOUT, 0};
    for (int i = 0; i < 300 && ::poll(&space, 1, 0) > 0; ++i) // a terminal may get room without waking the writer
    {
        std::this_thread::sleep_for(std::chrono::milliseconds(1));
    }
    ::kill(::getpid(), SIGTERM);
    writer.join();
    EXPECT_EQ(::fcntl(descriptor, F_GETFL), flags) << "other processes may share it";
    std::_Exit(testing::Test::HasFailure() ? 1 : 0);
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
}

} // namespace

} // namespace cloudfs
