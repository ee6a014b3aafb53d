#pragma once

#include <cstddef>
#include <string>
#include <string_view>

namespace cloudfs
{

/// Writes to standard output and looks at the result. Not for several threads.
class StandardOutput
{
public:
    /// Thrown when the reader of a pipe has gone away. It has seen enough, so this is no failure to report.
    struct BrokenPipe
    {
    };

    /// Write bytes now, after everything printed before.
    ///
    /// @throws CommandError, BrokenPipe or interrupt::Interrupted
    void write(const char* data, std::size_t size);

    /// Print one line. It may wait in memory until flush(), unless somebody is looking at a terminal.
    ///
    /// @throws as write()
    void line(std::string_view text);

    /// @throws as write()
    void flush();

    static bool isTerminal();

private:
    std::string m_pending;
};

} // namespace cloudfs
