#include "Responses.hpp"

#include <storage/clients/http/ResponseFields.hpp>
#include <storage/clients/http/Times.hpp>
#include <storage/clients/http/UriEncoding.hpp>
#include <storage/clients/http/XmlDocument.hpp>

#include <boost/algorithm/string/predicate.hpp>
#include <pugixml.hpp>

#include <algorithm>
#include <iterator>

namespace storage::clients::s3
{

namespace
{

ErrorDocument errorIn(const pugi::xml_node& root)
{
    return {textOf(root, "Code"), textOf(root, "Message"), textOf(root, "RequestId"), textOf(root, "Region"),
        textOf(root, "Endpoint")};
}

bool isError(pugi::xml_document& parsed, const std::string& document)
{
    return parsed.load_buffer(document.data(), document.size()) &&
           std::string_view(parsed.document_element().name()) == "Error";
}

/// A document whose root has been checked.
class Document
{
public:
    /// @param action  the store's name for the request
    Document(const std::string& text, const char* rootName, const char* action)
        : m_document(text)
    {
        if (m_document.isComplete() && std::string_view(root().name()) == "Error")
        {
            throw ErrorResponse(errorIn(root()));
        }
        m_document.requireRoot(rootName, action);
    }

    pugi::xml_node root() const { return m_document.root(); }

    std::string required(const char* name) const { return requiredText(root(), name); }

    /// Read a key, which is encoded when the document says so. An empty key is malformed.
    std::string key(const pugi::xml_node& parent, const char* name) const
    {
        const std::string text = requiredText(parent, name);
        return textOf(root(), "EncodingType") == "url" ? uriDecode(text) : text;
    }

    /// Every page states this: a document without contents is not an empty listing.
    bool isTruncated() const { return required("IsTruncated") == "true"; }

private:
    const XmlDocument m_document;
};

} // namespace

ErrorDocument readError(const std::string& document)
{
    pugi::xml_document parsed;
    return isError(parsed, document) ? errorIn(parsed.document_element()) : ErrorDocument();
}

bool isError(const std::string& document)
{
    pugi::xml_document parsed;
    return isError(parsed, document);
}

ListingPage readListing(const std::string& document)
{
    const Document parsed(document, "ListBucketResult", "ListObjectsV2");
    ListingPage page;
    std::vector<cloudprovider::ObjectEntry> groups;
    for (const pugi::xml_node& node : parsed.root().children("Contents"))
    {
        page.entries.push_back(
            {parsed.key(node, "Key"), requiredNumber(node, "Size"), readIsoTime(textOf(node, "LastModified"))});
    }
    for (const pugi::xml_node& node : parsed.root().children("CommonPrefixes"))
    {
        groups.push_back({parsed.key(node, "Prefix"), 0, {}});
    }
    // Each of the two lists is in order.
    std::vector<cloudprovider::ObjectEntry> merged;
    merged.reserve(page.entries.size() + groups.size());
    std::merge(page.entries.begin(), page.entries.end(), groups.begin(), groups.end(), std::back_inserter(merged),
        [](const auto& a, const auto& b) { return a.key < b.key; });
    page.entries = std::move(merged);
    if (parsed.isTruncated())
    {
        page.nextToken = parsed.required("NextContinuationToken");
    }
    return page;
}

UploadsDocument readUploads(const std::string& document)
{
    const Document parsed(document, "ListMultipartUploadsResult", "ListMultipartUploads");
    UploadsDocument page;
    for (const pugi::xml_node& node : parsed.root().children("Upload"))
    {
        page.uploads.push_back(
            {parsed.key(node, "Key"), requiredText(node, "UploadId"), requiredTime(node, "Initiated")});
    }
    if (parsed.isTruncated())
    {
        // This request does not ask for encoding: stores differ in whether that applies to this marker.
        page.nextKey = parsed.key(parsed.root(), "NextKeyMarker");
        page.nextUploadId = parsed.required("NextUploadIdMarker");
    }
    return page;
}

std::string readNewUpload(const std::string& document)
{
    return Document(document, "InitiateMultipartUploadResult", "CreateMultipartUpload").required("UploadId");
}

std::string readCopiedPart(const std::string& document)
{
    return unquotedTag(Document(document, "CopyPartResult", "UploadPartCopy").required("ETag"));
}

std::string readCopy(const std::string& document)
{
    return unquotedTag(Document(document, "CopyObjectResult", "CopyObject").required("ETag"));
}

void readDeletion(const std::string& document,
    const std::function<void(const std::string& name, const ErrorDocument& error)>& addFailure)
{
    const Document parsed(document, "DeleteResult", "DeleteObjects");
    for (const pugi::xml_node& node : parsed.root().children("Error"))
    {
        addFailure(parsed.key(node, "Key"), errorIn(node));
    }
}

std::string readCompletion(const std::string& document)
{
    return unquotedTag(
        textOf(Document(document, "CompleteMultipartUploadResult", "CompleteMultipartUpload").root(), "ETag"));
}

QueryParameters readTags(const std::string& document)
{
    if (document.empty()) // as Ceph responds for an object that had its tags dropped
    {
        return {};
    }
    const Document parsed(document, "Tagging", "GetObjectTagging");
    QueryParameters tags;
    for (const pugi::xml_node& node : parsed.root().child("TagSet").children("Tag"))
    {
        tags.emplace_back(requiredText(node, "Key"), textOf(node, "Value"));
    }
    return tags;
}

std::string writeCompletion(const std::vector<NumberedTag>& parts)
{
    pugi::xml_document document;
    pugi::xml_node root = document.append_child("CompleteMultipartUpload");
    for (const auto& [number, tag] : parts)
    {
        pugi::xml_node part = root.append_child("Part");
        part.append_child("PartNumber").text() = static_cast<unsigned long long>(number);
        part.append_child("ETag").text() = quotedTag(tag).c_str();
    }
    return textOf(document);
}

std::string writeDeletion(const std::string& prefix, const std::vector<std::string>& keys)
{
    pugi::xml_document document;
    pugi::xml_node root = document.append_child("Delete");
    root.append_child("Quiet").text() = "true";
    for (const std::string& key : keys)
    {
        root.append_child("Object").append_child("Key").text() = (prefix + key).c_str();
    }
    return textOf(document);
}

std::shared_ptr<const ObjectMetadata> metadataIn(const HttpResponse& response)
{
    constexpr std::string_view names[] = {"Content-Type", "Cache-Control", "Content-Encoding", "Content-Disposition",
        "Content-Language", "Expires", "x-amz-storage-class", "x-amz-website-redirect-location", tagCountField};
    auto metadata = std::make_shared<ObjectMetadata>();
    for (const auto& [name, value] : response.headers)
    {
        const bool isKnown = std::ranges::any_of(
            names, [&name = name](std::string_view known) { return boost::algorithm::iequals(known, name); });
        const bool isNoTags = value == "0" && boost::algorithm::iequals(name, tagCountField);
        const bool isRepeated = std::ranges::any_of(
            *metadata, [&name = name](const auto& known) { return boost::algorithm::iequals(known.first, name); });
        if (!isRepeated && ((isKnown && !isNoTags) || boost::algorithm::istarts_with(name, "x-amz-meta-")))
        {
            metadata->emplace_back(name, value);
        }
    }
    return metadata;
}

} // namespace storage::clients::s3
