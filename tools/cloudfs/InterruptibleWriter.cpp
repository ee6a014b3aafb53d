#include "InterruptibleWriter.hpp"

#include "Interrupt.hpp"

#include <fmt/format.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <climits>
#include <cstdlib>
#include <fcntl.h>
#include <limits>
#include <poll.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>

namespace cloudfs
{

namespace
{

/// Whether it is a terminal, and not the other end of one, which would be a new one if it was opened again.
bool isTerminal(int descriptor)
{
    std::array<char, 64> name{};
    return ::isatty(descriptor) == 1 && ::ptsname_r(descriptor, name.data(), name.size()) != 0;
}

} // namespace

InterruptibleWriter::InterruptibleWriter(int descriptor)
    : m_descriptor(descriptor)
    , m_maxWrite(std::numeric_limits<std::size_t>::max())
{
    struct stat status = {};
    ::fstat(descriptor, &status);
    m_isSocket = S_ISSOCK(status.st_mode);
    if (!S_ISFIFO(status.st_mode) && !isTerminal(descriptor))
    {
        return;
    }
    // O_NONBLOCK belongs to the open file, which other processes may share: open it once more.
    const int flags = O_WRONLY | O_NONBLOCK | O_NOCTTY | O_CLOEXEC;
    const int own = ::open(fmt::format("/proc/self/fd/{}", descriptor).c_str(), flags);
    if (own >= 0)
    {
        m_descriptor = own;
        m_isOwn = true;
    }
    else
    {
        m_maxWrite = PIPE_BUF; // a pipe that is ready takes so many bytes without blocking
    }
}

InterruptibleWriter::~InterruptibleWriter()
{
    if (m_isOwn)
    {
        ::close(m_descriptor);
    }
}

std::error_code InterruptibleWriter::write(std::string_view bytes)
{
    while (!bytes.empty())
    {
        interrupt::waitUntilReady(m_descriptor, POLLOUT);
        const std::size_t size = std::min(bytes.size(), m_maxWrite);
        const ssize_t written = m_isSocket ? ::send(m_descriptor, bytes.data(), size, MSG_DONTWAIT | MSG_NOSIGNAL)
                                           : ::write(m_descriptor, bytes.data(), size);
        if (written >= 0)
        {
            bytes.remove_prefix(static_cast<std::size_t>(written));
        }
        else if (errno != EINTR && errno != EAGAIN)
        {
            return {errno, std::generic_category()};
        }
    }
    return {};
}

} // namespace cloudfs
