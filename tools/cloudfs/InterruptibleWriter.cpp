#include "InterruptibleWriter.hpp"

#include "Interrupt.hpp"

#include <fmt/format.h>

#include <algorithm>
#include <cerrno>
#include <climits>
#include <fcntl.h>
#include <limits>
#include <poll.h>
#include <sys/stat.h>
#include <unistd.h>

namespace cloudfs
{

InterruptibleWriter::InterruptibleWriter(int descriptor)
    : m_descriptor(descriptor)
    , m_maxWrite(std::numeric_limits<std::size_t>::max())
{
    struct stat status = {};
    ::fstat(descriptor, &status);
    if (S_ISFIFO(status.st_mode))
    {
        // O_NONBLOCK belongs to the open file, which other processes may share: open it once more.
        const int own = ::open(fmt::format("/proc/self/fd/{}", descriptor).c_str(), O_WRONLY | O_NONBLOCK | O_CLOEXEC);
        if (own >= 0)
        {
            m_descriptor = own;
            m_isOwn = true;
            return;
        }
    }
    if (S_ISFIFO(status.st_mode) || S_ISSOCK(status.st_mode) || ::isatty(descriptor) == 1)
    {
        m_maxWrite = PIPE_BUF;
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
        const ssize_t written = ::write(m_descriptor, bytes.data(), std::min(bytes.size(), m_maxWrite));
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
