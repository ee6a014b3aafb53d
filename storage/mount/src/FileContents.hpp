#pragma once

#include "Extents.hpp"
#include "LocalFile.hpp"
#include "MountedStore.hpp"
#include "UnsentFiles.hpp"

#include <xxhash.h>

#include <condition_variable>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <mutex>
#include <optional>
#include <string>

namespace storage::mount
{

/// The contents of one file: a stored version, and what was written here since.
///
/// What is written goes into a local file, and send() stores it. The bytes of a file are, where several of these hold,
/// those of the first one:
/// - what is in the local file (m_local);
/// - the stored version (m_before), up to the smallest size that the file had since (m_kept);
/// - zeros.
///
/// Any thread may call any operation. `key` is the file's key, which must not change during the call. While the file is
/// being sent, reads go on, and writes wait. The parts of a file that is written from its beginning on are sent when
/// they are full, by the thread that has filled them.
class FileContents
{
public:
    /// Make the contents of a file that does not exist yet.
    static std::unique_ptr<FileContents> createNew(MountedStore& store, UnsentFiles& unsent, const std::string& key);

    /// Make the contents of a stored file, as a lookup or a listing has found it.
    ///
    /// @param found  its tag may be empty; then the first operation that needs the version asks for it
    FileContents(MountedStore& store, UnsentFiles& unsent, const Found& found);

    /// Make the contents that an earlier process has not sent.
    FileContents(MountedStore& store, UnsentFiles& unsent, const UnsentFile& file);

    FileContents(const FileContents&) = delete;
    FileContents& operator=(const FileContents&) = delete;

    /// Removes the local file, but not the record of an unsent file.
    ~FileContents();

    std::uint64_t size() const;

    /// Whether send() has something to do.
    bool isUnsent() const;

    /// Whether the file has never been stored.
    bool isNew() const;

    /// The stored version, if it is known.
    std::optional<ObjectVersion> stored() const;

    /// Whether a close must call send(): not for a file that was only created or emptied by opening it.
    bool needsFlush() const;

    /// What the store has, compared with what reads return.
    enum class Match
    {
        Same,     ///< or something is unsent, so that reads return that
        Replaced, ///< another version, which reads return from now on
        Refused   ///< another version, but somebody reads the old one
    };

    /// Take note that a lookup or a listing has found the file. After Refused, these contents are superseded.
    ///
    /// @param mayReplace  false: somebody reads this version, so it must stay
    Match found(const Found& found, bool mayReplace);

    /// Take note that the file is not there any more: who has it open can read what is here, and not write any more.
    ///
    /// @return false: something is unsent, so the file is here
    bool supersede();

    /// Whether other contents have the name of the file now.
    bool isSuperseded() const;

    /// Read up to `size` bytes. @return how many; fewer at the end of the file
    /// @throws Failure  ESTALE if another client has replaced or removed the version that was opened
    std::size_t read(const std::string& key, std::uint64_t offset, char* target, std::size_t size);

    /// @throws Failure  ENOSPC if the local disk is full; part of the bytes may have been written where the file had
    ///         others before, but the size has not changed. ESTALE if the contents are superseded
    void write(const std::string& key, std::uint64_t offset, const char* bytes, std::size_t size);

    /// Cut the file off, or extend it with zeros.
    ///
    /// @param isOpening  a program opens the file with O_TRUNC, and has written nothing yet
    void resize(const std::string& key, std::uint64_t size, bool isOpening = false);

    /// Store what is unsent. If that fails, it is still unsent.
    ///
    /// @return whether anything was stored
    /// @throws Failure  ESTALE if another client has replaced or removed the version that was changed; or that has
    ///         happened before, and what was written here is a conflict
    bool send(const std::string& key);

    /// Find out whether an attempt to store a new file has succeeded without telling it.
    void settle(const std::string& key);

    /// Write a copy of what is unsent, as read() would return it, and drop it: the contents are superseded. Ranges that
    /// cannot be read any more are left out.
    ///
    /// @return whether all bytes are there; nullopt: another thread has done this, or nothing is unsent
    std::optional<bool> moveToConflict(const std::string& key, const std::filesystem::path& path);

    /// Get all bytes into the local file, so that the stored object is not needed any more.
    void load(const std::string& key);

    /// The file was copied to another key, which it has from now on.
    ///
    /// @param copy        nullopt: there was no object to copy
    /// @param mayReplace  as for found()
    void moved(const std::string& newKey, const std::optional<MountedStore::Copy>& copy, bool mayReplace);

    /// The file is new, and has another key now. @param replaced  what the store has there
    void movedUnsent(const std::string& newKey, const std::optional<ObjectVersion>& replaced);

    /// Nobody has the file open any more: drop the local file, if everything is stored.
    void trim();

    /// The file was removed: what is unsent, and what is written from now on, is only for those who have it open.
    void remove();

private:
    class Busy;

    /// What an attempt to store the file has sent.
    struct Attempt
    {
        std::uint64_t size = 0; // of the file
        Extents bytes;          // that differ from the version before
        XXH128_hash_t hash{};   // of them
        bool isCurrent = true;  // nothing was written since
    };

    bool isKnown() const { return m_isNew || m_before; }
    std::unique_lock<std::mutex> lockKnown(const std::string& key);
    std::unique_lock<std::mutex> beginChange(const std::string& key);
    void makeLocal();
    void sendAhead(const std::string& key, std::unique_lock<std::mutex>& lock);
    void record(const std::string& key);
    std::unique_ptr<UploadAhead> takeAhead();
    std::optional<ObjectVersion> storeNow(const std::string& key, std::unique_lock<std::mutex>& lock);
    void setSent(const ObjectVersion& version);
    bool copyTo(const std::string& key, const std::filesystem::path& path) const;
    void replace(std::optional<ObjectVersion> version, std::uint64_t size);
    Extents missing(std::uint64_t offset, std::uint64_t size) const;
    void readNow(const std::string& key, std::uint64_t offset, char* target, std::size_t size) const;
    MountedStore::Change change(const std::string& key, UploadAhead* ahead) const;
    Attempt describe() const;
    std::optional<ObjectVersion> findOurs(const std::string& key) const;

    MountedStore& m_store;
    UnsentFiles& m_unsent;

    mutable std::mutex m_mutex; // never held during a call of the store; guards everything below
    std::condition_variable m_changed;
    std::optional<ObjectVersion> m_before; // nullopt: not stored, or not known
    bool m_isNew = false;
    bool m_isUntouched = false;
    std::optional<Time> m_foundModified; // of m_before, as the store tells it; nullopt: it has not yet
    std::uint64_t m_size = 0;
    std::uint64_t m_kept = 0;
    Extents m_local;   // below m_kept; from there on, all bytes are in m_file
    Extents m_written; // part of m_local: not stored yet
    bool m_isUnsent = false;
    bool m_isRemoved = false;
    bool m_isSuperseded = false;
    bool m_hasLostBytes = false; // what was written is a conflict
    bool m_isRecovered = false;  // an earlier process may have sent it
    bool m_isBusy = false;       // being sent or loaded: nothing below changes, and m_before neither
    std::int64_t m_id = 0;
    std::unique_ptr<LocalFile> m_file;   // null: nothing was written or loaded
    MountedStore::Condition m_condition; // of the attempts to send; not null only after one has begun
    std::optional<Attempt> m_attempt;    // the last one; it has failed, or its response was lost
    std::uint64_t m_frontier = 0;        // with m_kept == 0: all bytes before it were written
    std::unique_ptr<UploadAhead> m_ahead;
    bool m_hasAheadFailed = false; // so close sends the whole file
};

} // namespace storage::mount
