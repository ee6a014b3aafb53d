#pragma once

#include "InterruptibleWriter.hpp"

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <mutex>
#include <optional>
#include <string>
#include <string_view>

namespace cloudfs
{

/// Writes a local file that appears complete or not at all. One thread at a time, except for writeAt().
///
/// Blocks of zeros become holes, where the file system has them, so that a sparse file stays sparse.
///
/// Until commit() the file has no name, so nothing is left if the process is killed. A file that replaces another one
/// then gets a temporary name in the same folder for an instant. On file systems without unnamed files, such as NFS, it
/// has that name from the start. removeLeftovers() removes what a process that was killed has left under such a name.
class LocalTarget
{
public:
    /// Where the path comes from, which decides what may exist there already.
    enum class Destination
    {
        NamedByUser, ///< symbolic links are followed; devices and pipes are written directly
        InsideTree   ///< a symbolic link is replaced, not followed; devices and pipes are refused
    };

    /// Remove the files with temporary names that processes which no longer exist have left in a folder.
    static void removeLeftovers(const std::string& folder);

    /// Create the file, or open the device or pipe. If the user has named it, removeLeftovers() in its folder first.
    ///
    /// @param replace  whether to replace an existing file; if false, it is refused here and again at the commit
    /// @throws CommandError
    LocalTarget(const std::string& path, bool replace, Destination destination);

    LocalTarget(const LocalTarget&) = delete;
    LocalTarget& operator=(const LocalTarget&) = delete;

    /// Remove the file, unless it was committed. A failure is printed.
    ~LocalTarget();

    /// Whether it is a regular file, and not a device or a pipe.
    bool isRegularFile() const noexcept { return !m_stream; }

    /// Write bytes of a regular file at their offset. Any threads may do that at a time, but not for the same bytes; if
    /// these are written again, the last ones count.
    ///
    /// @throws CommandError; interrupt::Interrupted
    void writeAt(std::uint64_t offset, std::string_view bytes);

    /// Write bytes behind those of the last call. Not to be mixed with writeAt().
    ///
    /// @throws CommandError; interrupt::Interrupted
    void write(const char* data, std::size_t size);

    /// Give the file its final path. Call once, after the last write().
    ///
    /// @throws CommandError; an existing file at the path is then unchanged
    void commit();

private:
    void writeData(std::uint64_t offset, std::string_view bytes);
    void createTemporary();
    bool makeTemporaryName(const std::function<bool(const char* name)>& make);
    bool makeVisible();

    const std::string m_name; // as the user named it, for messages
    const bool m_replace;
    const std::string m_path; // the final path
    const std::string m_folder;
    std::string m_temporary; // empty: none
    int m_descriptor = -1;
    std::optional<InterruptibleWriter> m_stream; // of a device or pipe
    bool m_isUnnamed = false;                    // until it is committed
    std::atomic<std::uint64_t> m_size{0};        // bytes of a regular file; it may end in a hole
    std::mutex m_writing; // file systems admit one writer of a file; others that wait in the kernel use the processor
};

} // namespace cloudfs
