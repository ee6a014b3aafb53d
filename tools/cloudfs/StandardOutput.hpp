#pragma once

#include "InterruptibleWriter.hpp"

#include <cstddef>
#include <string>
#include <string_view>
#include <unistd.h>

namespace cloudfs
{

/// Writes to standard output and reports every failure. One thread at a time.
class StandardOutput
{
public:
    /// Thrown when the reader of a pipe has closed it. The reader needs no more output, so no error is printed.
    struct BrokenPipe
    {
    };

    /// Write bytes now, after all lines printed before.
    ///
    /// @throws CommandError, BrokenPipe or interrupt::Interrupted
    void write(std::string_view text);

    /// Print one line. It may stay in memory until flush(), except on a terminal.
    ///
    /// @throws as write()
    void line(std::string_view text);

    /// Write the lines that are still in memory. The destructor does not.
    ///
    /// @throws as write()
    void flush();

    static bool isTerminal();

private:
    InterruptibleWriter m_writer{STDOUT_FILENO};
    std::string m_pending;
};

} // namespace cloudfs
