#pragma once

#include <storage/clients/decorators/InterceptingClient.hpp>

#include <cstddef>
#include <cstdint>
#include <iosfwd>
#include <memory>
#include <string>
#include <vector>

namespace storage::clients
{

class ReadAhead;

/// How much a ReadAheadClient may do at a time. With either of 0 it is the client below and starts no thread.
struct ReadAheadSettings
{
    std::size_t transfers = 8; ///< most ranges on their way ahead of their readers, one thread each

    /// Bytes of all objects together that are fetched or about to be. Less than one range as readers ask for them is
    /// as good as 0.
    std::uint64_t memory = 64 << 20;
};

/// Fetch what a sequential reader will ask for next, on threads of its own, while the reader is still busy.
///
/// A reader that begins where the object does is sequential from the second range on that begins where the one before
/// it ended; one that begins elsewhere from the third. So neither a look into the middle of an object, even one across
/// two parts, nor the first range of an object fetches anything ahead. The window begins with one range, is doubled by
/// each that follows, and closes when the reader turns elsewhere. Up to 8 readers of one object are told apart; those
/// in step share what is fetched. What was read by all of them is dropped, and what nobody comes for is when others
/// have read some hundreds of ranges meanwhile, or need the memory. So as long as nobody else reads, what the last
/// readers have left stays, within `memory`.
///
/// Only objects are fetched ahead of which getObjectParts() has told the size, through this client and after its last
/// write; of more than 256 those not used for longest are forgotten. The whole object (0, 0) and ranges that nobody
/// could foresee pass straight through. A range is answered from memory as a whole or not at all.
///
/// Versions: ranges fetched ahead are asked for as the reader would, so they come from the version that the client
/// below pins for readers; one that pins none may be changed behind this client's back between two of them. An answer
/// of getObjectParts() that differs from the one before drops what was fetched, and so do putObject(), deleteObject()
/// and completeMultipartUpload(), at their begin and at their end, whether they succeed or not: once they have
/// returned, no byte is delivered that was fetched before.
///
/// A range that cannot be fetched ahead is no failure. It is logged, the window closes, and the reader asks below
/// itself, where it gets an error of its own, if there still is one.
///
/// Threads: any, at the same time. A call may wait for a range that another thread is already fetching; no lock is held
/// while the client below works. Threads start when first needed, and the destructor ends them: ranges not yet begun
/// are dropped, and those on their way are waited for, as long as the client below lets them take. Destroy it when no
/// call is under way.
class ReadAheadClient : public InterceptingClient
{
public:
    explicit ReadAheadClient(std::shared_ptr<cloudprovider::CloudClient> inner, ReadAheadSettings settings = {});
    ~ReadAheadClient() override;

    void deleteObject(const std::string& key) override;
    void getObjectRange(const std::string& key, std::ostream& out, std::uint64_t first, std::uint64_t last) override;
    void putObject(const std::string& key, std::istream& content, std::uint64_t size) override;
    std::vector<cloudprovider::PartInfo> getObjectParts(const std::string& key) override;
    void completeMultipartUpload(const std::string& key, const std::string& uploadId,
        const std::vector<cloudprovider::PartInfo>& parts) override;

private:
    const std::unique_ptr<ReadAhead> m_readAhead;
};

} // namespace storage::clients
