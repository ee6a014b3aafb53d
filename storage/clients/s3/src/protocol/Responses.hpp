#pragma once

#include <storage/clients/common/UploadInventory.hpp>
#include <storage/clients/http/HttpMessage.hpp>
#include <storage/clients/http/UriEncoding.hpp>
#include <storage/clients/http/XmlDocument.hpp>
#include <storage/clients/remote/RemoteStore.hpp>

#include <functional>
#include <memory>
#include <stdexcept>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

/// The documents in a store's responses, and those that are sent to it.
namespace storage::clients::s3
{

/// The contents of an error document; every field may be empty.
struct ErrorDocument
{
    std::string code;
    std::string message;
    std::string requestId;
    std::string region;   ///< of the bucket, when the request used another one
    std::string endpoint; ///< likewise
};

/// An error document in a response with a successful status.
class ErrorResponse : public std::runtime_error
{
public:
    explicit ErrorResponse(ErrorDocument error)
        : std::runtime_error("the response is an error document")
        , m_error(std::move(error))
    {
    }

    const ErrorDocument& error() const noexcept { return m_error; }

private:
    ErrorDocument m_error;
};

/// Parse an error document; all fields are empty when it is not one.
ErrorDocument readError(const std::string& document);

/// Whether a document is an error document, even an empty one.
bool isError(const std::string& document);

// Each of the following throws MalformedResponse, ErrorResponse, or an HttpFailure for a document that is truncated.

ListingPage readListing(const std::string& document);

struct UploadsDocument
{
    std::vector<PendingUpload> uploads;
    std::string nextKey; ///< empty on the last page
    std::string nextUploadId;
};
UploadsDocument readUploads(const std::string& document);

/// The id of a new upload.
std::string readNewUpload(const std::string& document);

/// The entity tag of a copied part, and of a copied object.
std::string readCopiedPart(const std::string& document);
std::string readCopy(const std::string& document);

/// Call a function for each object that was not deleted.
void readDeletion(const std::string& document,
    const std::function<void(const std::string& name, const ErrorDocument& error)>& addFailure);

/// The entity tag of the completed object; empty when the store does not state it.
std::string readCompletion(const std::string& document);

/// The tags of an object.
QueryParameters readTags(const std::string& document);

/// The document that completes an upload.
std::string writeCompletion(const std::vector<NumberedTag>& parts);

/// The document that deletes objects, and lets the response only have those that were not deleted.
/// @param prefix  of all keys
std::string writeDeletion(const std::string& prefix, const std::vector<std::string>& keys);

/// The field that says how many tags an object has. It is part of the metadata, so that they are requested only then.
constexpr std::string_view tagCountField = "x-amz-tagging-count";

/// The fields of a response that tell the object's metadata. Of fields with the same name, the first is the object's;
/// proxies add others.
std::shared_ptr<const ObjectMetadata> metadataIn(const HttpResponse& response);

} // namespace storage::clients::s3
