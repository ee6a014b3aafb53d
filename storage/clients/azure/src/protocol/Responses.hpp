#pragma once

#include <storage/clients/http/HttpMessage.hpp>
#include <storage/clients/http/UriEncoding.hpp>
#include <storage/clients/remote/RemoteStore.hpp>

#include <cstdint>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

/// The documents and fields of the store's responses, and the documents that are sent to it.
namespace storage::clients::azure
{

/// A block of a blob.
struct Block
{
    std::string id; ///< in base64
    std::uint64_t size = 0;

    bool operator==(const Block&) const = default;
};

struct BlockList
{
    std::vector<Block> committed;   ///< the blob has the bytes of these, in this order; none if it was put at once
    std::vector<Block> uncommitted; ///< were sent, and belong to no blob
};

// These throw MalformedResponse, or an HttpFailure for a document that is truncated.
ListingPage readListing(const HttpResponse& response);
BlockList readBlockList(const HttpResponse& response);
QueryParameters readTags(const HttpResponse& response);

/// A block that the new blob has, in the document that makes it.
struct ListedBlock
{
    std::string id;
    bool isCommitted; ///< it is one of the present blob
};
std::string writeBlockList(const std::vector<ListedBlock>& blocks);

// Fields of ObjectMetadata that are not sent as they are: the blob's tier, how many tags it has, and what kind of blob
// it is, unless that is a block blob.
inline constexpr std::string_view tierField = "x-ms-access-tier"; // responses to GET lack it
inline constexpr std::string_view tagCountField = "x-ms-tag-count";
inline constexpr std::string_view blobTypeField = "x-ms-blob-type";

/// Field of the tags, in requests.
inline constexpr const char* tagsField = "x-ms-tags";

/// Field of the key that the service encrypts a blob with, in responses and in requests.
inline constexpr const char* encryptionScopeField = "x-ms-encryption-scope";

/// The metadata of an object, as the fields that a request sends so that a new one has it.
std::shared_ptr<const ObjectMetadata> metadataIn(const HttpResponse& response);

/// See ContentFields.
std::string hashIn(const HttpResponse& head, const std::string& tag, bool isWhole);

} // namespace storage::clients::azure
