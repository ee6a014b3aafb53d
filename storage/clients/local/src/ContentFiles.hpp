#pragma once

#include "Files.hpp"
#include "SessionLock.hpp"

#include <atomic>
#include <cstdint>
#include <filesystem>
#include <optional>
#include <vector>

namespace storage::clients::local
{

/// The name of a content file. It has the bytes of one putObject(), uploadPart() or copyPart(), which the index calls a
/// content. The id of the content alone is not unique: when a transaction is rolled back, its ids are assigned again,
/// while its files may still exist.
struct FileName
{
    std::int64_t content = 0;
    std::uint64_t session = 0; // of the client that wrote the file
};

class ContentFiles;

/// A file that is being written and that the index does not name yet. The destructor removes it unless it was
/// published.
class IncomingFile
{
public:
    IncomingFile(IncomingFile&& other) noexcept;
    IncomingFile& operator=(IncomingFile&&) = delete;
    ~IncomingFile();

    // Both let the disk begin to write the bytes once there is a MiB of them: a sync at the end then waits for few, and
    // the disk does not idle while the next ones are received. Less is left to the sync: no page is written twice.
    void append(const char* bytes, std::uint64_t size);
    void append(
        const FileHandle& from, const std::filesystem::path& fromPath, std::uint64_t offset, std::uint64_t size);

    /// Sync the bytes to the disk.
    void sync();

private:
    friend class ContentFiles;
    IncomingFile(ContentFiles& files, std::filesystem::path path);
    void startWriteBack(std::uint64_t size) noexcept;

    ContentFiles& m_files;
    std::filesystem::path m_path; // empty: published, or moved from
    FileHandle m_file;
    std::uint64_t m_size = 0;    // bytes appended
    std::uint64_t m_started = 0; // bytes that the disk may have begun to write
};

/// The files beside the index. They have the bytes of the objects and parts that are not stored inline in the index.
///
///     contents/<content>-<session>    published; named by the index
///     incoming/<session>-<number>     being written
///     sessions/<session>              see SessionLock
///
/// Safe for concurrent calls on one instance, and for any number of instances and processes on one store.
class ContentFiles
{
public:
    /// Create the folders that are missing.
    ///
    /// @throws StoreError, as do all functions that are not noexcept
    explicit ContentFiles(const std::filesystem::path& directory);

    /// Create a file in incoming/.
    IncomingFile create();

    /// Rename a synced file into contents/. Must be called inside the transaction that adds the file: an orphan
    /// collector, which looks for files in a write transaction, then never takes one that the index is about to name.
    FileName publish(IncomingFile& file, std::int64_t content, SessionLock::Notes& notes);

    /// Sync the names of all published files to the disk.
    void syncContentsFolder() const;

    /// Open for reading; nullopt when there is no such file.
    ///
    /// @throws StoreError also when the file has another size
    std::optional<FileHandle> open(FileName name, std::uint64_t size) const;

    std::filesystem::path path(FileName name) const;

    /// Prepare remove(). Must be called before the transaction that drops the files is committed. The notes must live
    /// until all are removed.
    void prepareRemoval(const std::vector<FileName>& names, SessionLock::Notes& notes);

    SessionLock& session() noexcept { return m_sessionLock; }

    /// Remove a file that the index does not name. If that fails, it is left to the orphan collector.
    void remove(FileName name) noexcept;

    /// Leave files of this session that the index does not name to the orphan collector of a later client.
    void leaveOrphans() noexcept { m_sessionLock.keepFile(); }

    /// See SessionLock::setUnsynced().
    void setUnsynced(bool isUnsynced) noexcept { m_sessionLock.setUnsynced(isUnsynced); }

    /// See SessionLock::isDead().
    bool isDead(std::uint64_t session) const { return SessionLock::isDead(m_sessions, session); }

    /// See SessionLock::findDead().
    std::vector<SessionLock::Dead> findDeadSessions() const { return SessionLock::findDead(m_sessions); }

    /// List the files in contents/, including orphans.
    std::vector<FileName> list() const;

    /// List the files that these sessions may have left as orphans: those that they have noted, or all files after a
    /// restart of the machine.
    std::vector<FileName> listCandidates(const std::vector<SessionLock::Dead>& sessions) const;

    /// Remove the files that these sessions were writing.
    void removeIncoming(const std::vector<SessionLock::Dead>& sessions);

    /// Remove the lock files of these sessions, so that no client searches for their orphans again.
    void removeLocks(const std::vector<SessionLock::Dead>& sessions);

private:
    friend class IncomingFile;

    const std::filesystem::path m_incoming;
    const std::filesystem::path m_contents;
    const std::filesystem::path m_sessions;
    const FileHandle m_contentsFolder;
    SessionLock m_sessionLock;
    std::atomic<std::uint64_t> m_created = 0;
};

} // namespace storage::clients::local
