#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>

namespace cloudfs
{

/// Reads a local file, or standard input, from the current position to the end. One thread at a time.
class LocalSource
{
public:
    /// Open a file, a device or a pipe. Blocks until a named pipe has a writer.
    ///
    /// @throws CommandError if the path cannot be opened or is a folder; interrupt::Interrupted
    explicit LocalSource(const std::string& path);

    /// Read standard input, which the destructor leaves open.
    static LocalSource standardInput() { return LocalSource(); }

    LocalSource(const LocalSource&) = delete;
    LocalSource& operator=(const LocalSource&) = delete;
    ~LocalSource();

    /// Read at most `size` bytes into the buffer. Blocks until there is at least one.
    ///
    /// A file that has grown since it was opened is read to its new end.
    /// @return the number of bytes; 0 at the end
    /// @throws CommandError, also if the file was truncated since it was opened: its contents are then inconsistent;
    ///         interrupt::Interrupted
    std::size_t read(char* buffer, std::size_t size);

    /// The size of a regular file when it was opened; empty for everything else.
    std::optional<std::uint64_t> size() const noexcept { return m_size; }

    bool isTerminal() const noexcept;

private:
    LocalSource();

    void requireNotTruncated() const;

    const std::string m_path;
    const int m_descriptor;
    std::optional<std::uint64_t> m_size; // constant after construction
    std::uint64_t m_read = 0;
};

} // namespace cloudfs
