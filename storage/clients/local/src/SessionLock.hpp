#pragma once

#include "Files.hpp"

#include <atomic>
#include <cstdint>
#include <filesystem>
#include <mutex>
#include <string>
#include <vector>

namespace storage::clients::local
{

/// The mark of a client that may have files of which the index knows nothing yet, or no longer.
///
/// It is a file, locked as long as the client lives, and removed by a client that leaves nothing behind. A mark that
/// nobody locks tells whoever opens the store next that a client was ended, and what its files are called.
/// Safe for concurrent calls on one instance.
class SessionLock
{
public:
    /// Choose a number. Nothing is written before acquire(): who only reads leaves no mark.
    explicit SessionLock(std::filesystem::path folder);
    SessionLock(const SessionLock&) = delete;
    SessionLock& operator=(const SessionLock&) = delete;
    ~SessionLock();

    /// Make the mark last, if that was not done before. To be called before any file is made or removed.
    ///
    /// @throws StoreError
    void acquire();

    /// Leave the mark where it is: there is something to collect.
    void keepFile() noexcept { m_keepFile = true; }

    /// Differs from that of every other session of the store, past ones included.
    std::uint64_t number() const noexcept { return m_number; }

    /// A session that was ended, held against others that want to collect after it.
    struct Dead
    {
        std::filesystem::path path;
        std::uint64_t number = 0;
        FileHandle file;
    };

    /// Find the sessions whose clients are no more, except those that somebody else is collecting after.
    static std::vector<Dead> findDead(const std::filesystem::path& folder);

private:
    std::filesystem::path path() const;

    const std::filesystem::path m_folder;
    const std::uint64_t m_number;
    std::atomic<bool> m_keepFile = false;

    std::mutex m_mutex; // innermost
    FileHandle m_file;  // guarded by m_mutex; empty: there is no mark
};

/// A session's number, or another of 64 bits, as file names have it: 16 hexadecimal digits.
std::string fileNameOf(std::uint64_t number);

} // namespace storage::clients::local
