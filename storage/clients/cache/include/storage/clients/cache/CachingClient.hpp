#pragma once

#include <storage/clients/cache/RangeCache.hpp>
#include <storage/clients/common/PinnedVersions.hpp>
#include <storage/clients/decorators/InterceptingClient.hpp>

#include <cstdint>
#include <iosfwd>
#include <memory>
#include <string>

namespace storage::clients
{

class RestFetcher;

/// Read ranges from a RangeCache, and keep there what had to be requested.
///
/// A range is served from disk only while PinnedVersions, an interface of the inner client, tells the version that this
/// client would read, and only from this version. So a reader sees what it would see without the cache, with one
/// exception: if another client has replaced or deleted the object since it was opened, ranges that are on disk can
/// still be read. If the inner client has no such interface, everything passes. Opening a file still asks the store:
/// that is where the version and the permission come from.
///
/// Not kept, but passed to the inner client: objects of up to a quarter of a block, which a RemoteClient fetches with
/// their opening, and reads of more than 16 MiB at once, since a range is in memory while it is read.
///
/// Whoever reads an object at random is soon served from disk, too: when waiting for single ranges of a version has
/// cost as much as fetching the rest of it would, the rest is fetched in the background, unless it is more than half of
/// the cache; see docs/decisions/random-reads-that-learn.md.
///
/// What is requested is extended to whole blocks. Nothing is written to the caller's stream before the whole range is
/// there. Safe for concurrent calls on one instance. Two callers that miss the same block both request it.
class CachingClient : public InterceptingClient
{
public:
    /// @param cache  never null; may be shared by the clients of several stores
    /// @param store  ObjectVersion::store: the same for all clients of the same store, and for no others
    CachingClient(
        std::shared_ptr<cloudprovider::CloudClient> inner, std::shared_ptr<RangeCache> cache, std::string store);
    ~CachingClient() override;

    void getObjectRange(const std::string& key, std::ostream& out, std::uint64_t first, std::uint64_t last) override;

private:
    class MemoryBuffer;

    bool fetch(const std::string& key, const PinnedVersion& version, const ByteRange& range, MemoryBuffer& target);
    ByteRange wholeBlocks(const ByteRange& range, std::uint64_t objectSize) const;

    const std::shared_ptr<RangeCache> m_cache;
    const std::string m_store;
    PinnedVersions* const m_versions;          // of the inner client; null: it has none
    const std::unique_ptr<RestFetcher> m_rest; // last: its thread uses the members above
};

} // namespace storage::clients
