#include "Background.hpp"

#include <array>
#include <cerrno>
#include <cstdlib>
#include <fcntl.h>
#include <sys/wait.h>
#include <system_error>
#include <unistd.h>

namespace cloudfs
{

namespace
{

/// Wait for the child to be ready or to end. @return the status for the parent
int awaitChild(pid_t child, int readyPipe)
{
    char byte = 0;
    ssize_t count = 0;
    while ((count = ::read(readyPipe, &byte, 1)) < 0 && errno == EINTR)
    {
    }
    int status = 0;
    if (count == 1)
    {
        return EXIT_SUCCESS;
    }
    while (::waitpid(child, &status, 0) < 0 && errno == EINTR)
    {
    }
    return WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
}

} // namespace

Background::Background()
{
    std::array<int, 2> pipe{-1, -1};
    const pid_t child = ::pipe2(pipe.data(), O_CLOEXEC) == 0 ? ::fork() : -1;
    if (child < 0)
    {
        throw std::system_error(errno, std::generic_category(), "starting a process");
    }
    if (child > 0)
    {
        ::close(pipe[1]);
        std::_Exit(awaitChild(child, pipe[0]));
    }
    ::close(pipe[0]);
    ::setsid();
    m_parent = pipe[1];
}

void Background::ready() const
{
    const int null = ::open("/dev/null", O_RDWR | O_CLOEXEC);
    for (const int stream : {STDIN_FILENO, STDOUT_FILENO, STDERR_FILENO})
    {
        stream != STDERR_FILENO || ::isatty(stream) == 1 ? void(::dup2(null, stream)) : void();
    }
    ::close(null);
    [[maybe_unused]] const int isInRoot = ::chdir("/"); // or the folder could not be unmounted
    [[maybe_unused]] const auto written = ::write(m_parent, "", 1);
    ::close(m_parent);
}

} // namespace cloudfs
