#pragma once

#include "protocol/Responses.hpp"

#include <storage/clients/common/Content.hpp>
#include <storage/clients/common/UploadInventory.hpp>
#include <storage/clients/http/HttpMessage.hpp>
#include <storage/clients/remote/RemoteStore.hpp>

#include <atomic>
#include <cstddef>
#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

namespace storage::clients::azure
{

/// Blocks that are sent to become a blob. All but the count is constant after its creation.
struct BlockUpload
{
    std::string id; ///< 16 hexadecimal digits
    boost::posix_time::ptime created;
    std::string key;
    std::string tag;           ///< of the blob that was there; empty: there was none, or it has no blocks
    std::vector<Block> blocks; ///< of that blob
    std::size_t idSize = 0;    ///< bytes of all block ids, before they are encoded
    WrittenMetadata metadata;
    HttpHeaders headers; ///< of the request that makes the blob, unless that looks them up again
    std::atomic<unsigned> sentBlocks = 0;

    /// The id of the next block that is sent for a part: no other block has it. A request whose response was lost may
    /// take effect later, with other bytes than those that are sent again. Ids have the order of the numbers, and are
    /// as long as those that the blob has.
    std::string nextBlockId(std::size_t number);

    /// Whether a block was sent for this upload.
    bool owns(const Block& block) const;

    /// The tag of a part that is made of whole blocks of the blob.
    std::string runOf(const ByteRange& range) const;

    /// The blocks of the new blob.
    std::vector<ListedBlock> listed(const std::vector<NumberedTag>& parts) const;

private:
    /// The bytes that the ids of all its blocks begin with.
    std::string idPrefix() const;
};

/// The uploads of one AzureStore. Safe for concurrent calls.
class BlockUploads
{
public:
    /// @param tag   of the blob that is there; empty: there is none, or it has no blocks
    /// @param list  of its blocks
    /// @throws UnknownErrorException when the ids of the blocks that are there are so short that new ones could not be
    ///         told apart
    std::string open(const std::string& key, const std::string& tag, const BlockList& list, WrittenMetadata metadata,
        HttpHeaders headers);

    /// Null: there is no such upload of the key.
    std::shared_ptr<BlockUpload> find(const std::string& key, const std::string& id) const;

    /// @throws ResourceNotFoundException instead
    std::shared_ptr<BlockUpload> get(const std::string& key, const std::string& id) const;

    void close(const std::string& id);

    std::vector<PendingUpload> pending() const;

private:
    mutable std::mutex m_mutex; // innermost; guards m_uploads
    std::map<std::string, std::shared_ptr<BlockUpload>> m_uploads;
};

} // namespace storage::clients::azure
