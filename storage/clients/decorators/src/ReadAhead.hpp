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

/// What a ReadAheadClient does beside handing calls on: watches what is read, fetches ahead, and answers from memory.
///
/// Safe for concurrent calls. No lock is held during calls of the client below.
class ReadAhead
{
    using ObjectPtr = std::shared_ptr<FetchedObject>;

public:
    ReadAhead(cloudprovider::CloudClient& inner, const ReadAheadSettings& settings);
    ReadAhead(const ReadAhead&) = delete;
    ReadAhead& operator=(const ReadAhead&) = delete;
    ~ReadAhead();

    /// Take note that a range is read, fetch further ones where that is worth it, and write it from memory.
    ///
    /// @return false: it is not in memory, and nothing was written
    /// @throws UnknownErrorException when `out` fails
    bool read(const std::string& key, std::ostream& out, const ByteRange& range);

    /// One call that asks how the object is cut into parts. Unless it succeeds, nothing is known of the object then.
    class Opening
    {
    public:
        Opening(ReadAhead& owner, const std::string& key);
        Opening(const Opening&) = delete;
        Opening& operator=(const Opening&) = delete;
        ~Opening();

        void succeeded(const std::vector<cloudprovider::PartInfo>& parts);

    private:
        ReadAhead& m_owner;
        ObjectPtr m_object;
        std::uint64_t m_generation = 0;
        bool m_succeeded = false;
    };

    /// One call that changes the object. As long as it lives, nothing of it is fetched ahead.
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
    // All of these are called under m_mutex.
    ObjectPtr find(const std::string& key);
    ObjectPtr findOrAdd(const std::string& key);
    void release(ObjectPtr& object);
    void fetchAhead(const ObjectPtr& object, const ReadStreams::Ahead& ahead);
    void queue(const ObjectPtr& object, std::uint64_t from, std::uint64_t to, std::uint64_t piece);
    void closeIdleWindows(std::uint64_t turns);
    void fetch(FetchedObject& object, FetchedBlock& block, std::unique_lock<std::mutex>& lock);

    std::vector<FetchedBlockPtr> obtain(const std::string& key, const ByteRange& range);
    void download(const std::string& key, const ByteRange& range, char* bytes);

    cloudprovider::CloudClient& m_inner;
    const std::uint64_t m_mostAhead;  // bytes of one window
    const std::uint64_t m_wholePiece; // bytes of one block, unless a reader asks for more at once
    BufferPool m_buffers;             // outlives the blocks

    // Lock order: the lock of m_threads may be taken when this one is held, never the other way.
    std::mutex m_mutex;                // guards what follows, but for m_threads, and what the objects hold
    std::condition_variable m_settled; // blocks have become Ready or Gone
    std::list<ObjectPtr> m_objects;    // the one used last in front
    std::unordered_map<std::string, std::list<ObjectPtr>::iterator> m_byKey;
    std::uint64_t m_reads = 0; // so far

    WorkerThreads m_threads; // last, so that they end first
};

} // namespace storage::clients
