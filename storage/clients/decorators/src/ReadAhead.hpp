#pragma once

#include "BufferPool.hpp"
#include "FetchedObject.hpp"
#include "ReadStreams.hpp"
#include "WorkerThreads.hpp"

#include <storage/clients/common/Content.hpp>
#include <storage/clients/decorators/ReadAheadClient.hpp>
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

/// The prefetching of a ReadAheadClient: observes reads, prefetches, and serves ranges from memory.
///
/// Safe for concurrent calls. No lock is held during calls of the inner client.
class ReadAhead
{
    using ObjectPtr = std::shared_ptr<FetchedObject>;

public:
    ReadAhead(cloudprovider::CloudClient& inner, const ReadAheadSettings& settings);
    ReadAhead(const ReadAhead&) = delete;
    ReadAhead& operator=(const ReadAhead&) = delete;
    ~ReadAhead();

    /// Record that a range is read, queue the resulting prefetches, and write the range if it is in memory.
    ///
    /// @return false: it is not in memory, and nothing was written
    /// @throws UnknownErrorException if `out` fails
    bool read(const std::string& key, std::ostream& out, const ByteRange& range);

    /// One getObjectParts() call. Unless it succeeds, nothing is known of the object after it.
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

    /// One call that changes the object. While it lives, nothing of the object is prefetched.
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
    void prefetch(const ObjectPtr& object, const ReadStreams::Ahead& ahead);
    void queue(const ObjectPtr& object, std::uint64_t from, std::uint64_t to, std::uint64_t piece);
    void closeIdleWindows(std::uint64_t maxTurns);
    void fetch(FetchedObject& object, FetchedBlock& block, std::unique_lock<std::mutex>& lock);

    std::vector<FetchedBlockPtr> obtain(const std::string& key, const ByteRange& range);
    void download(const std::string& key, const ByteRange& range, char* bytes);

    cloudprovider::CloudClient& m_inner;
    const std::uint64_t m_maxWindow; // bytes
    const std::uint64_t m_maxPiece;  // bytes of one block, unless a reader requests more at once
    BufferPool m_buffers;            // outlives the blocks

    // Lock order: the locks of m_threads and m_buffers may be taken while this one is held, never the other way.
    std::mutex m_mutex;                // guards all members below except m_threads, and the contents of the objects
    std::condition_variable m_settled; // blocks became Ready or Gone
    std::list<ObjectPtr> m_objects;    // most recently used first
    std::unordered_map<std::string, std::list<ObjectPtr>::iterator> m_byKey;
    std::uint64_t m_reads = 0; // reads so far, of all objects

    WorkerThreads m_threads; // last: destroyed first, since its tasks use all other members
};

} // namespace storage::clients
