#include "Responses.hpp"

#include <storage/clients/http/Hashing.hpp>
#include <storage/clients/http/Times.hpp>
#include <storage/clients/http/XmlDocument.hpp>

#include <boost/algorithm/string/predicate.hpp>

#include <algorithm>
#include <utility>

namespace storage::clients::azure
{

namespace
{

/// The name of a blob or a group, which is encoded when it has characters that XML has not.
std::string nameIn(const pugi::xml_node& node)
{
    const std::string name = requiredText(node, "Name");
    return node.child("Name").attribute("Encoded").as_bool() ? uriDecode(name) : name;
}

std::vector<Block> blocksIn(const pugi::xml_node& list)
{
    std::vector<Block> blocks;
    for (const pugi::xml_node& node : list.children("Block"))
    {
        blocks.push_back({requiredText(node, "Name"), requiredNumber(node, "Size")});
    }
    return blocks;
}

} // namespace

ListingPage readListing(const HttpResponse& response)
{
    const XmlDocument document(response.body);
    document.requireRoot("EnumerationResults", "List Blobs");
    ListingPage page;
    for (const pugi::xml_node& node : document.root().child("Blobs").children())
    {
        const pugi::xml_node properties = node.child("Properties");
        if (std::string_view(node.name()) == "BlobPrefix")
        {
            page.entries.push_back({nameIn(node), 0, {}});
        }
        else if (textOf(properties, "ResourceType") != "directory") // an account with hierarchical namespace lists them
        {
            page.entries.push_back({nameIn(node), requiredNumber(properties, "Content-Length"),
                readHttpTime(textOf(properties, "Last-Modified"))});
        }
    }
    if (!document.root().child("NextMarker")) // a document without contents is not an empty listing
    {
        throw MalformedResponse("the response lacks NextMarker");
    }
    page.nextToken = textOf(document.root(), "NextMarker");
    std::ranges::sort(page.entries, {}, &cloudprovider::ObjectEntry::key); // groups may come behind all blobs
    return page;
}

BlockList readBlockList(const HttpResponse& response)
{
    const XmlDocument document(response.body);
    document.requireRoot("BlockList", "Get Block List");
    return {blocksIn(document.root().child("CommittedBlocks")), blocksIn(document.root().child("UncommittedBlocks"))};
}

QueryParameters readTags(const HttpResponse& response)
{
    const XmlDocument document(response.body);
    document.requireRoot("Tags", "Get Blob Tags");
    QueryParameters tags;
    for (const pugi::xml_node& node : document.root().child("TagSet").children("Tag"))
    {
        tags.emplace_back(requiredText(node, "Key"), textOf(node, "Value"));
    }
    return tags;
}

std::string writeBlockList(const std::vector<ListedBlock>& blocks)
{
    pugi::xml_document document;
    pugi::xml_node root = document.append_child("BlockList");
    for (const ListedBlock& block : blocks)
    {
        root.append_child(block.isCommitted ? "Committed" : "Uncommitted").text() = block.id.c_str();
    }
    return textOf(document);
}

std::shared_ptr<const ObjectMetadata> metadataIn(const HttpResponse& response)
{
    // Name in the response, name in a request.
    constexpr std::pair<std::string_view, std::string_view> names[] = {{"Content-Type", "x-ms-blob-content-type"},
        {"Content-Encoding", "x-ms-blob-content-encoding"}, {"Content-Language", "x-ms-blob-content-language"},
        {"Content-Disposition", "x-ms-blob-content-disposition"}, {"Cache-Control", "x-ms-blob-cache-control"},
        {tierField, tierField}, {tagCountField, tagCountField}, {blobTypeField, blobTypeField},
        {encryptionScopeField, encryptionScopeField}};
    const std::string* const inferred = response.headers.find("x-ms-access-tier-inferred");
    const bool hasDefaultTier = inferred != nullptr && *inferred == "true";
    auto metadata = std::make_shared<ObjectMetadata>();
    for (const auto& [name, value] : response.headers)
    {
        const auto* const known = std::ranges::find_if(
            names, [&name = name](const auto& pair) { return boost::algorithm::iequals(pair.first, name); });
        const bool isKnown = known != std::end(names);
        const bool isDefault = isKnown && ((known->first == blobTypeField && value == "BlockBlob") ||
                                              (known->first == tierField && hasDefaultTier));
        if ((isKnown && !isDefault) || boost::algorithm::istarts_with(name, "x-ms-meta-"))
        {
            metadata->emplace_back(isKnown ? known->second : name, value);
        }
    }
    return metadata;
}

std::string hashIn(const HttpResponse& head, const std::string& /*tag*/, bool isWhole)
{
    const std::string* const sent = head.headers.find("Content-MD5");
    const std::string* const whole = isWhole ? head.headers.find("x-ms-blob-content-md5") : nullptr;
    const std::string hash = sent != nullptr ? fromBase64(*sent) : whole != nullptr ? fromBase64(*whole) : "";
    return hash.size() == 16 ? hash : "";
}

} // namespace storage::clients::azure
