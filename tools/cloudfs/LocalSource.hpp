#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>

#include <sys/stat.h>

namespace cloudfs
{

/// Reads a local file, or standard input. One thread at a time calls read(), any thread the others.
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

    /// Read at most `size` bytes from the current position into the buffer. Blocks until there is at least one.
    ///
    /// A file that has grown since it was opened is read to its new end.
    /// @return the number of bytes; 0 at the end
    /// @throws CommandError, also if the file was truncated since it was opened: its contents are then inconsistent;
    ///         interrupt::Interrupted
    std::size_t read(char* buffer, std::size_t size);

    /// The size of a regular file when it was opened; empty for everything else.
    std::optional<std::uint64_t> size() const noexcept { return m_size; }

    bool isTerminal() const noexcept;

    /// Whether it was a regular file that has as many bytes as size() says. Files of /proc and /sys may have others.
    bool hasStatedSize() const noexcept { return m_hasStatedSize; }

    /// Read `size` bytes at an offset of a file with hasStatedSize().
    /// @throws CommandError, also if the file has become shorter
    void readAt(std::uint64_t offset, char* buffer, std::size_t size) const;

    /// @throws CommandError if the file's size or modification time are others than when it was opened
    void requireUnchanged() const;

private:
    LocalSource();

    void requireNotTruncated() const;
    [[noreturn]] void throwTruncated() const;
    bool findStatedSize() const noexcept;

    const std::string m_path;
    const int m_descriptor;
    struct stat m_status = {}; // when it was opened; constant after construction, and so is m_size
    std::optional<std::uint64_t> m_size;
    bool m_hasStatedSize = false; // constant after construction
    std::uint64_t m_read = 0;
};

} // namespace cloudfs
