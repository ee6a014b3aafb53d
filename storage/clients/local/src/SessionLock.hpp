#pragma once

#include "Files.hpp"

#include <atomic>
#include <cstdint>
#include <filesystem>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

#include <sys/types.h>

namespace storage::clients::local
{

/// The lock file of a client that may have content files that the index does not name, or no longer names.
///
/// The client holds the lock as long as it lives, and removes the file when it is destroyed, unless it leaves orphans.
/// A lock file that is not locked shows the next client that opens the store that a session is dead. The file's name is
/// the session number, which is part of the names of the session's content files. The file has the id of the machine's
/// last start, and the notes. They are not synced: after a restart they may be incomplete. Safe for concurrent calls on
/// one instance.
class SessionLock
{
public:
    /// The file is created by acquire() only, so clients that only read have none.
    explicit SessionLock(std::filesystem::path folder);
    SessionLock(const SessionLock&) = delete;
    SessionLock& operator=(const SessionLock&) = delete;
    ~SessionLock();

    /// Create the lock file, unless that has been done, lock it and sync its folder. Must be called before any content
    /// file is created or removed.
    ///
    /// @throws StoreError
    void acquire();

    /// Notes which content files are about to be added or removed, for the collector of a dead session.
    class Notes
    {
    public:
        explicit Notes(SessionLock& session)
            : m_session(session)
        {
        }
        Notes(const Notes&) = delete;
        Notes& operator=(const Notes&) = delete;

        /// All of them were added or removed, or keepFile() was called.
        ~Notes();

        /// Note a file before it is added or removed. Calls acquire().
        ///
        /// @throws StoreError
        void add(const std::string& fileName);

    private:
        SessionLock& m_session;
        bool m_isEmpty = true;
    };

    /// Do not remove the file in the destructor: there are orphans to collect.
    void keepFile() noexcept { m_keepFile = true; }

    /// Set whether the index may lose, with the power, the names of files that it has. The destructor keeps the lock
    /// file then: without it, nobody would collect those files.
    void setUnsynced(bool isUnsynced) noexcept { m_isUnsynced = isUnsynced; }

    /// Random, 64 bits: differs from the number of every other session of the store, including past ones. To be called
    /// after acquire().
    std::uint64_t number() const noexcept { return m_number; }

    /// A session whose client has ended without removing its lock file.
    struct Dead
    {
        std::filesystem::path path;
        std::uint64_t number = 0;
        FileHandle file; // locked, so that no other client collects the same orphans
        /// The files that it has noted; nullopt: unknown, because the machine was restarted since.
        std::optional<std::vector<std::string>> noted;
    };

    /// Tell whether the client of a session has ended. False, too, while another client is collecting its orphans.
    static bool isDead(const std::filesystem::path& folder, std::uint64_t number);

    /// Find the dead sessions, except those whose orphans another client is collecting.
    static std::vector<Dead> findDead(const std::filesystem::path& folder);

private:
    std::filesystem::path path() const;
    void append(const std::string& line);

    const std::filesystem::path m_folder;
    std::uint64_t m_number = 0; // constant after acquire()
    std::atomic<bool> m_keepFile = false;
    std::atomic<bool> m_isUnsynced = false;

    std::mutex m_mutex; // innermost
    FileHandle m_file;  // guarded by m_mutex; empty: acquire() was not called
    off_t m_size = 0;   // guarded by m_mutex; of the file
    int m_noting = 0;   // guarded by m_mutex; instances of Notes that are not empty
};

/// A session number as it appears in file names: 16 hexadecimal digits.
std::string fileNameOf(std::uint64_t number);

} // namespace storage::clients::local
