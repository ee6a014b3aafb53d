#pragma once

#include "FetchedObject.hpp"
#include "MemoryBudget.hpp"
#include "ObjectReader.hpp"
#include "ReadStreams.hpp"
#include "TaskPool.hpp"

#include <storage/clients/common/Content.hpp>
#include <storage/clients/common/VersionPins.hpp>
#include <storage/clients/remote/RemoteSettings.hpp>

#include <condition_variable>
#include <cstddef>
#include <cstdint>
#include <iosfwd>
#include <list>
#include <memory>
#include <mutex>
#include <string>

namespace storage::clients
{

/// Prefetches what sequential readers will request next, and serves ranges from memory.
///
/// Detection: see ReadStreams. Neither the first range of an object triggers a prefetch nor a single access in its
/// middle. Up to 8 readers of one object are tracked separately; readers at the same position share the prefetched
/// bytes. A range is served from memory completely or not at all.
///
/// Memory: bytes that all their readers have read are dropped. Bytes that are not read are dropped when other readers
/// have read some hundreds of ranges meanwhile, or need the memory. Without further reads, the bytes that the last
/// readers left unread stay in memory. If the budget has less than one range as readers request them, nothing is
/// prefetched.
///
/// Objects: an object is prefetched only while VersionPins names its version, and only from this version. When another
/// version is read, the bytes of the last one are dropped. Once a Write has ended, no byte is delivered that was
/// prefetched before. The readers of 256 objects are known; the least recently read object is forgotten, with its
/// bytes.
///
/// Failures: a failed prefetch is not an error. It is logged and closes the window. The reader then has to request the
/// range itself.
///
/// Safe for concurrent calls. A call may wait for a range that another thread is already fetching. No lock is held
/// during requests. If the pool is not concurrent, nothing is prefetched.
class ReadAhead
{
    using ObjectPtr = std::shared_ptr<FetchedObject>;
    using Objects = std::list<ObjectPtr>;

public:
    /// All arguments are borrowed. The pool must end before this is destroyed.
    ReadAhead(
        ObjectReader& reader, VersionPins& pins, TaskPool& pool, MemoryBudget& budget, const RemoteSettings& settings);
    ReadAhead(const ReadAhead&) = delete;
    ReadAhead& operator=(const ReadAhead&) = delete;

    /// Drop all prefetched bytes. Call this before the pool ends, so that it need not fetch what is queued.
    void drop();

    /// Record that a range is read, queue the resulting prefetches, and write the range if it is in memory.
    ///
    /// @return false: it is not in memory, and nothing was written
    /// @throws UnknownErrorException if `out` fails
    bool read(const std::string& key, std::ostream& out, const ByteRange& range);

    /// The time in which this client may change the object. At its end the prefetched bytes are dropped, because the
    /// pin stays if the object was deleted, or if the outcome is unknown.
    class Write
    {
    public:
        Write(ReadAhead& owner, const std::string& key)
            : m_owner(owner)
            , m_key(key)
        {
        }
        Write(const Write&) = delete;
        Write& operator=(const Write&) = delete;
        ~Write() { m_owner.forget(m_key); }

    private:
        ReadAhead& m_owner;
        const std::string& m_key;
    };

private:
    void forget(const std::string& key);

    // These are called under m_mutex. fetch() releases it during the download.
    ObjectPtr objectAt(const std::string& key, const Version& version);
    Objects::const_iterator find(const std::string& key) const;
    void forget(Objects::const_iterator object);
    void addAhead(FetchedObject& object, const ReadStreams::Ahead& ahead, FetchedBlocks& added);
    void add(FetchedObject& object, std::uint64_t from, std::uint64_t to, std::uint64_t piece, FetchedBlocks& added);
    void closeIdleWindows(std::uint64_t maxTurns);
    void fetch(FetchedObject& object, FetchedBlock& block, std::unique_lock<std::mutex>& lock);

    FetchedBlocks obtain(const std::string& key, const ByteRange& range);
    void post(const ObjectPtr& object, FetchedBlocks added);

    ObjectReader& m_reader;
    VersionPins& m_pins;
    TaskPool& m_pool;
    MemoryBudget& m_budget;
    const std::uint64_t m_maxWindow; // bytes
    const std::uint64_t m_maxPiece;  // bytes of one block, unless a reader requests more at once

    // Lock order: the lock of m_budget may be taken while this one is held, never the other way.
    std::mutex m_mutex;                // guards all members below, and the contents of the objects
    std::condition_variable m_settled; // blocks became Ready or Gone
    Objects m_objects;                 // at most one for each key, the most recently read first
    std::uint64_t m_reads = 0;         // reads so far, of all objects
};

} // namespace storage::clients
