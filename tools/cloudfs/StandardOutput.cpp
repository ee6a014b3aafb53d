#include "StandardOutput.hpp"

#include "CommandError.hpp"

#include <system_error>
#include <unistd.h>

namespace cloudfs
{

void StandardOutput::write(std::string_view text)
{
    flush();
    if (const std::error_code error = m_writer.write(text))
    {
        if (error == std::errc::broken_pipe)
        {
            throw BrokenPipe();
        }
        throw CommandError::fromErrno("standard output", error.value());
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
