#include "StandardOutput.hpp"

#include "CommandError.hpp"
#include "Interrupt.hpp"

#include <cerrno>
#include <sys/types.h>
#include <unistd.h>

namespace cloudfs
{

void StandardOutput::write(std::string_view text)
{
    flush();
    while (!text.empty())
    {
        const ssize_t written = interrupt::writeWhenReady(STDOUT_FILENO, text);
        if (written < 0)
        {
            if (errno == EINTR || errno == EAGAIN)
            {
                continue;
            }
            if (errno == EPIPE)
            {
                throw BrokenPipe();
            }
            throw CommandError::fromErrno("standard output", errno);
        }
        text.remove_prefix(static_cast<std::size_t>(written));
    }
}

void StandardOutput::line(std::string_view text)
{
    constexpr std::size_t maxPending = 65536; // bytes; a system call per line would cost more than the listing
    m_pending += text;
    m_pending += '\n';
    if (m_pending.size() >= maxPending || isTerminal())
    {
        flush();
    }
}

void StandardOutput::flush()
{
    std::string pending;
    pending.swap(m_pending);
    if (!pending.empty())
    {
        write(pending);
    }
}

bool StandardOutput::isTerminal()
{
    static const bool isTerminal = ::isatty(STDOUT_FILENO) == 1;
    return isTerminal;
}

} // namespace cloudfs
