#pragma once

#include <storage/clients/common/Content.hpp>

#include <atomic>
#include <cstdint>
#include <filesystem>
#include <list>
#include <memory>
#include <mutex>
#include <string>
#include <string_view>
#include <unordered_map>
#include <utility>

namespace storage::clients
{

/// One version of one object. Different bytes must differ in key, tag, size or store.
struct ObjectVersion
{
    std::string store; ///< the same text for no other store
    std::string key;
    std::string tag;        ///< cloudprovider::ObjectInfo::tag; not empty
    std::uint64_t size = 0; ///< bytes of the object

    bool operator==(const ObjectVersion&) const = default;
};

/// How a RangeCache keeps its blocks.
struct RangeCacheSettings
{
    std::filesystem::path folder;      ///< made if it is missing; its parent must exist
    std::uint64_t maxSize = 1U << 30U; ///< bytes that all files together may use, see RangeCache::size()

    /// Bytes of a block, at least 1. The default is large enough for a sequential read, and a quarter of a part as
    /// RemoteClient reads it. A cache with another block size starts empty. A CachingClient fetches the rest of an
    /// object only if 4 MiB are a multiple of it.
    std::uint64_t blockSize = 64U << 10U;
};

/// Keep ranges of object versions in files of a folder, so that they survive the process.
///
/// Content: an object is cut into blocks of a fixed size. 64 consecutive blocks of a version are in one sparse file,
/// with a checksum of each block at its beginning. A block is never stale, because it belongs to one version, and the
/// reader names the version that it opened.
///
/// Damage: a block counts only if its checksum is right, so what a crash has left incomplete is a miss, and so is what
/// the disk has changed. Its file is removed then. Nothing is synced.
///
/// Limit: before a block is written, the files that were used longest ago are removed until it fits. If it cannot fit,
/// it is not kept. Each use of a file sets its modification time, which tells the next process the order.
///
/// Failures: after it was opened, a cache never causes a failure. A block that cannot be read is a miss. If a block
/// cannot be written, for example because the disk is full, the cache logs a warning and only reads from then on, so
/// that it does not use up the space that others need.
///
/// Processes: one instance at a time uses a folder. Two that share one could not hold the limit without asking each
/// other before each block. Folders of their own would each need the space, and somebody would have to remove them.
///
/// Files have mode 0600, the folder 0700 if it is made here. Their names are hashes, so they do not tell keys; but
/// their bytes are those of the objects, unencrypted. Other files in the folder are not touched.
///
/// Safe for concurrent calls. Files are removed under the lock; blocks are read and written without it.
class RangeCache
{
public:
    /// Open the cache in a folder, and read the headers of its files.
    ///
    /// @return null: another instance uses this folder, in this process or another one. That is not an error: read
    ///         without a cache then.
    /// @throws cloudprovider::UnknownErrorException when the folder cannot be used
    static std::shared_ptr<RangeCache> open(const RangeCacheSettings& settings);

    RangeCache(const RangeCache&) = delete;
    RangeCache& operator=(const RangeCache&) = delete;
    ~RangeCache();

    /// Read a range of an object, as far as it is here.
    ///
    /// @param range   must not end beyond the object
    /// @param target  range.size writable bytes
    /// @return what the caller has to get elsewhere: the smallest range that has all missing blocks, within `range`;
    ///         size 0: nothing. The bytes of `range` outside of it are in `target`, those inside are undefined.
    ByteRange read(const ObjectVersion& object, const ByteRange& range, char* target);

    /// The same, without reading: what is here may turn out to be damaged. What is being written counts as here.
    ByteRange missing(const ObjectVersion& object, const ByteRange& range);

    /// Keep those blocks that are completely inside a range. The last block of an object ends with the object.
    ///
    /// @param range  must not end beyond the object
    /// @param bytes  range.size bytes of this version, borrowed until the call returns
    void write(const ObjectVersion& object, const ByteRange& range, const char* bytes);

    /// Bytes that the files use: a header of 4 KiB for each, and whole blocks. At most RangeCacheSettings::maxSize.
    std::uint64_t size() const;

    /// Whether a write has failed, so that nothing more is kept.
    bool isReadOnly() const noexcept { return m_isReadOnly; }

    std::uint64_t maxSize() const noexcept { return m_settings.maxSize; }
    std::uint64_t blockSize() const noexcept { return m_settings.blockSize; }

private:
    /// A file with blocks.
    struct Entry
    {
        std::string name;
        std::uint64_t present = 0; ///< bit n: block n can be read
        std::uint64_t writing = 0; ///< bit n: block n is being written, and has its space already
    };
    using Entries = std::list<Entry>;
    struct Piece;
    struct Gap;

    RangeCache(const RangeCacheSettings& settings, int lock);

    template <typename Visit>
    void forEachFile(const ObjectVersion& object, const ByteRange& range, Visit visit) const;
    std::uint64_t readPiece(const Piece& piece, char* target);
    void writePiece(const Piece& piece, const char* bytes);
    void scan();
    std::filesystem::path pathOf(const std::string& name) const { return m_settings.folder / name; }

    std::pair<std::uint64_t, std::uint64_t> blocksOf(const std::string& name);
    std::uint64_t reserve(const std::string& name, std::uint64_t blocks);
    void finishWrite(const std::string& name, std::uint64_t blocks, bool isWritten);
    void drop(const std::string& name);

    // These require m_mutex.
    Entries::iterator entryOf(const std::string& name);
    std::uint64_t bytesOf(const Entry& entry) const;
    void evict();
    void remove(Entries::iterator entry);

    const RangeCacheSettings m_settings;
    const int m_lock; // descriptor of the lock file
    std::atomic<bool> m_isReadOnly = false;

    mutable std::mutex m_mutex; // innermost; guards everything below
    Entries m_entries;          // the most recently used first
    std::unordered_map<std::string_view, Entries::iterator> m_byName;
    std::uint64_t m_size = 0;
};

} // namespace storage::clients
