#pragma once

#include "FetchedObject.hpp"
#include "MemoryBudget.hpp"
#include "ObjectReader.hpp"
#include "ReadStreams.hpp"
#include "TaskPool.hpp"

#include <storage/clients/common/Content.hpp>
#include <storage/clients/remote/RemoteSettings.hpp>
#include <storage/cloudprovider/CloudClient.hpp>

#include <condition_variable>
#include <cstddef>
#include <cstdint>
#include <iosfwd>
#include <list>
#include <memory>
#include <mutex>
#include <string>
#include <unordered_map>
#include <vector>

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
/// Objects: an object is prefetched only if its size is known from a PartsLookup after the last Write. The sizes of 256
/// objects are kept; the least recently used is forgotten. Prefetched bytes are dropped when a PartsLookup fails or
/// finds another version, and at the start and at the end of a Write. Once a Write has ended, no byte is delivered that
/// was prefetched before it.
///
/// Failures: a failed prefetch is not an error. It is logged and closes the window. The reader then has to request the
/// range itself.
///
/// Safe for concurrent calls. A call may wait for a range that another thread is already fetching. No lock is held
/// during requests. If the pool is not concurrent, nothing is prefetched.
class ReadAhead
{
    using ObjectPtr = std::shared_ptr<FetchedObject>;

public:
    /// All arguments are borrowed. The pool must end before this is destroyed.
    ReadAhead(ObjectReader& reader, TaskPool& pool, MemoryBudget& budget, const RemoteSettings& settings);
    ReadAhead(const ReadAhead&) = delete;
    ReadAhead& operator=(const ReadAhead&) = delete;

    /// Forget everything. Call this before the pool ends, so that it need not fetch what is queued.
    void drop();

    /// Record that a range is read, queue the resulting prefetches, and write the range if it is in memory.
    ///
    /// @return false: it is not in memory, and nothing was written
    /// @throws UnknownErrorException if `out` fails
    bool read(const std::string& key, std::ostream& out, const ByteRange& range);

    /// The time in which ObjectReader::parts() is called. Unless it succeeds, nothing is known of the object after it.
    class PartsLookup
    {
    public:
        PartsLookup(ReadAhead& owner, const std::string& key);
        PartsLookup(const PartsLookup&) = delete;
        PartsLookup& operator=(const PartsLookup&) = delete;
        ~PartsLookup();

        void succeeded(const std::vector<cloudprovider::PartInfo>& parts);

    private:
        ReadAhead& m_owner;
        ObjectPtr m_object;
        std::uint64_t m_generation = 0;
        bool m_succeeded = false;
    };

    /// The time in which this client may change the object. Nothing of the object is prefetched meanwhile.
    class Write
    {
    public:
        Write(ReadAhead& owner, const std::string& key);
        Write(const Write&) = delete;
        Write& operator=(const Write&) = delete;
        ~Write();

    private:
        ReadAhead& m_owner;
        ObjectPtr m_object;
    };

private:
    // These are called under m_mutex. fetch() releases it during the download.
    ObjectPtr find(const std::string& key);
    ObjectPtr findOrAdd(const std::string& key);
    void release(ObjectPtr& object);
    void addAhead(FetchedObject& object, const ReadStreams::Ahead& ahead, FetchedBlocks& added);
    void add(FetchedObject& object, std::uint64_t from, std::uint64_t to, std::uint64_t piece, FetchedBlocks& added);
    void closeIdleWindows(std::uint64_t maxTurns);
    void fetch(FetchedObject& object, FetchedBlock& block, std::unique_lock<std::mutex>& lock);

    FetchedBlocks obtain(const std::string& key, const ByteRange& range);
    void post(const ObjectPtr& object, FetchedBlocks added);

    ObjectReader& m_reader;
    TaskPool& m_pool;
    MemoryBudget& m_budget;
    const std::uint64_t m_maxWindow; // bytes
    const std::uint64_t m_maxPiece;  // bytes of one block, unless a reader requests more at once

    // Lock order: the lock of m_budget may be taken while this one is held, never the other way.
    std::mutex m_mutex;                // guards all members below, and the contents of the objects
    std::condition_variable m_settled; // blocks became Ready or Gone
    std::list<ObjectPtr> m_objects;    // most recently used first
    std::unordered_map<std::string, std::list<ObjectPtr>::iterator> m_byKey;
    std::uint64_t m_reads = 0; // reads so far, of all objects
};

} // namespace storage::clients
