#pragma once

#include "protocol/Responses.hpp"

#include <storage/clients/common/Content.hpp>
#include <storage/clients/common/UploadInventory.hpp>
#include <storage/clients/http/HttpMessage.hpp>
#include <storage/clients/remote/RemoteStore.hpp>

#include <cstddef>
#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

namespace storage::clients::azure
{

/// Blocks that are sent to become a blob. Constant after its creation.
struct BlockUpload
{
    std::string id; ///< 16 hexadecimal digits
    boost::posix_time::ptime created;
    std::string key;
    std::string tag;           ///< of the blob that was there; empty: none
    std::vector<Block> blocks; ///< of that blob
    std::size_t idSize = 0;    ///< bytes of all block ids, before they are encoded
    HttpHeaders headers;       ///< of the request that makes the blob

    /// The id of a part's block. Ids have the order of the numbers, and are as long as those that the blob has.
    std::string blockId(std::size_t number) const;

    /// The tag of a part that is made of whole blocks of a version of the blob; nothing when the range is not.
    std::optional<std::string> takeRun(const CopySource& source, const ByteRange& range) const;

    /// The blocks of the new blob.
    /// @throws UnknownErrorException when there are more than maxBlocks
    std::vector<ListedBlock> listed(const std::vector<NumberedTag>& parts) const;
};

inline constexpr std::size_t maxBlocks = 50'000; // of a blob

/// The uploads of one AzureStore. Safe for concurrent calls.
class BlockUploads
{
public:
    /// @param list  of the blob that is there
    /// @throws UnknownErrorException when the ids of its blocks are so short that new ones could not be told apart
    std::string open(const std::string& key, const std::string& tag, const BlockList& list, HttpHeaders headers);

    /// Null: there is no such upload of the key.
    std::shared_ptr<const BlockUpload> find(const std::string& key, const std::string& id) const;

    /// @throws ResourceNotFoundException instead
    std::shared_ptr<const BlockUpload> get(const std::string& key, const std::string& id) const;

    void close(const std::string& id);

    std::vector<PendingUpload> pending() const;

private:
    mutable std::mutex m_mutex; // innermost; guards m_uploads
    std::map<std::string, std::shared_ptr<const BlockUpload>> m_uploads;
};

} // namespace storage::clients::azure
