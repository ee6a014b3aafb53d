#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>

namespace cloudfs
{

/// Reads a local file, or standard input, from its present position to its end. One thread at a time.
class LocalSource
{
public:
    /// Open a file, or whatever else can be read: a named pipe is waited for.
    ///
    /// @throws CommandError, also for a folder; interrupt::Interrupted
    explicit LocalSource(const std::string& path);

    /// Read standard input, which is left open.
    static LocalSource standardInput() { return LocalSource(); }

    LocalSource(const LocalSource&) = delete;
    LocalSource& operator=(const LocalSource&) = delete;
    ~LocalSource();

    /// Fill the buffer with up to `size` bytes.
    ///
    /// @return the number of bytes; 0 at the end
    /// @throws CommandError, also when the file turns out shorter than it was: what was read is then not what anybody
    /// wrote.
    ///         A file that has grown is read to its new end. interrupt::Interrupted
    std::size_t read(char* buffer, std::size_t size);

    /// The bytes that are to come, where that can be known.
    std::optional<std::uint64_t> size() const noexcept { return m_size; }

private:
    LocalSource();

    void requireNotTruncated() const;

    const std::string m_path;
    const int m_descriptor;
    std::optional<std::uint64_t> m_size; // constant after construction; regular files only
    std::uint64_t m_read = 0;
};

} // namespace cloudfs
