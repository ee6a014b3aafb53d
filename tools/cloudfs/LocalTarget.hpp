#pragma once

#include <cstddef>
#include <string>

namespace cloudfs
{

/// Writes a local file that appears complete or not at all: until commit() it has a temporary name in the same folder.
/// One thread at a time.
class LocalTarget
{
public:
    /// Where the path comes from, which decides what may exist there already.
    enum class Destination
    {
        NamedByUser, ///< symbolic links are followed; devices and pipes are written directly
        InsideTree   ///< a symbolic link is replaced, not followed; devices and pipes are refused
    };

    /// Create the temporary file, or open the device or pipe.
    ///
    /// @param replace  whether to replace an existing file; if false, it is refused here and again at the commit
    /// @throws CommandError
    LocalTarget(const std::string& path, bool replace, Destination destination);

    LocalTarget(const LocalTarget&) = delete;
    LocalTarget& operator=(const LocalTarget&) = delete;

    /// Remove the temporary file, unless it was committed. A failure is printed.
    ~LocalTarget();

    /// Append bytes.
    ///
    /// @throws CommandError; interrupt::Interrupted
    void write(const char* data, std::size_t size);

    /// Rename the temporary file to its final path. Call once, after the last write().
    ///
    /// @throws CommandError; an existing file at the path is then unchanged
    void commit();

private:
    void createTemporary();

    const std::string m_name; // as the user named it, for messages
    const bool m_replace;
    std::string m_path;      // the final path
    std::string m_temporary; // empty: device or pipe, or committed
    int m_descriptor = -1;
};

} // namespace cloudfs
