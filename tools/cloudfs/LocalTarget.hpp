#pragma once

#include <cstddef>
#include <string>

namespace cloudfs
{

/// Writes a local file that appears whole or not at all: under a temporary name beside it until commit(). One thread at
/// a time.
class LocalTarget
{
public:
    /// What may stand where the file is to go.
    enum class Destination
    {
        NamedByUser, ///< by the user: a link stands for what it leads to, and a device or a pipe is written directly
        InsideTree ///< found while a tree is copied: a link is replaced, not followed, and nothing but files is written
    };

    /// @param replace  an existing file is replaced; otherwise it is refused, both now and at the commit
    /// @throws CommandError
    LocalTarget(const std::string& path, bool replace, Destination destination);

    LocalTarget(const LocalTarget&) = delete;
    LocalTarget& operator=(const LocalTarget&) = delete;

    /// Remove what was written, unless it was committed.
    ~LocalTarget();

    /// @throws CommandError; interrupt::Interrupted
    void write(const char* data, std::size_t size);

    /// Put the file in its place.
    ///
    /// @throws CommandError; the file that stood there stands there still
    void commit();

private:
    void createTemporary();

    const std::string m_name; // as the user knows it, for messages
    const bool m_replace;
    std::string m_path;      // where the file is to stand
    std::string m_temporary; // empty: written directly, or committed
    int m_descriptor = -1;
};

} // namespace cloudfs
