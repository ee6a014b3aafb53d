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

/// What the file of a content is called by. The number alone would not do: it is given out again when the change that
/// took it is undone, and the file may then still lie there.
struct FileName
{
    std::int64_t content = 0;
    std::uint64_t session = 0; // who wrote it
};

class ContentFiles;

/// A file that is being written and that no content has yet. Removed unless it is published.
class IncomingFile
{
public:
    IncomingFile(IncomingFile&& other) noexcept;
    IncomingFile& operator=(IncomingFile&&) = delete;
    ~IncomingFile();

    void append(const char* bytes, std::uint64_t size);
    void append(
        const FileHandle& from, const std::filesystem::path& fromPath, std::uint64_t offset, std::uint64_t size);

    /// Make what was written last.
    void sync();

private:
    friend class ContentFiles;
    IncomingFile(ContentFiles& files, std::filesystem::path path);

    ContentFiles& m_files;
    std::filesystem::path m_path; // empty: published, or moved from
    FileHandle m_file;
};

/// The files beside the index: one for each content that is not small.
///
///     contents/<content>-<session>    as the index names them
///     incoming/<session>-<number>     being written
///     sessions/<session>              see SessionLock
///
/// Safe for concurrent calls on one instance, and for any number of instances and processes on one store.
class ContentFiles
{
public:
    /// Make the folders that are missing.
    ///
    /// @throws StoreError, as everything here
    explicit ContentFiles(const std::filesystem::path& directory);

    IncomingFile create();

    /// Give a synced file its place. To be called inside the change that adds the content, so that nobody who holds the
    /// index against changes ever sees a file that is yet to be named.
    FileName publish(IncomingFile& file, std::int64_t content);

    /// Make the places of all files last that were published before.
    void syncContentsFolder() const;

    /// Open for reading; nothing when the file is not there.
    ///
    /// @throws StoreError also when it is there with another size than it had
    std::optional<FileHandle> open(FileName name, std::uint64_t size) const;

    std::filesystem::path path(FileName name) const;

    /// Prepare remove(). To be called before the change that drops a content is committed.
    void prepareRemoval() { m_sessionLock.acquire(); }

    /// Remove a file that no content has. What cannot be removed is left for collection.
    void remove(FileName name) noexcept;

    /// Leave this session's files, as far as the index does not name them, to those who open the store later.
    void leaveOrphans() noexcept { m_sessionLock.keepFile(); }

    /// Find sessions whose clients were ended in the middle of things; see SessionLock::findDead().
    std::vector<SessionLock::Dead> findDeadSessions() const { return SessionLock::findDead(m_sessions); }

    /// List the files in their places, whether a content has them or not.
    std::vector<FileName> list() const;

    /// Remove what these sessions were writing, and then their marks.
    void removeSessions(const std::vector<SessionLock::Dead>& sessions);

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
