#pragma once

#include <storage/clients/common/UploadInventory.hpp>
#include <storage/cloudprovider/CloudClient.hpp>

#include <cstdint>
#include <optional>
#include <stdexcept>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

/// The documents that a store answers with, and the one that it is sent.
namespace storage::clients::s3
{

/// What an error document says; every field may be empty.
struct ErrorDocument
{
    std::string code;
    std::string message;
    std::string requestId;
    std::string region;   ///< where the bucket is, when that is what was wrong
    std::string endpoint; ///< likewise
};

/// A document that is not the one expected: cut off, or of another kind.
class MalformedResponse : public std::runtime_error
{
public:
    using std::runtime_error::runtime_error;
};

/// Instead of what was asked for, under a good status: an error document.
class ErrorResponse : public std::runtime_error
{
public:
    explicit ErrorResponse(ErrorDocument error)
        : std::runtime_error("the answer is an error document")
        , m_error(std::move(error))
    {
    }

    const ErrorDocument& error() const noexcept { return m_error; }

private:
    ErrorDocument m_error;
};

/// Read a number of digits; nothing when it is something else.
std::optional<std::uint64_t> readNumber(std::string_view text);

/// Read an error document; all fields are empty when it is none.
ErrorDocument readError(const std::string& document);

/// Whether it is an error document, even one that says nothing.
bool isError(const std::string& document);

// Each of the following throws MalformedResponse or ErrorResponse.

struct ListingPage
{
    std::vector<cloudprovider::ObjectEntry> entries; ///< in ascending byte order
    std::string nextToken;                           ///< empty on the last page
};
ListingPage readListing(const std::string& document);

struct UploadsPage
{
    std::vector<PendingUpload> uploads;
    std::string nextKey; ///< empty on the last page
    std::string nextUploadId;
};
UploadsPage readUploads(const std::string& document);

/// The identifier of a new upload.
std::string readNewUpload(const std::string& document);

/// The entity tag of a copied part.
std::string readCopiedPart(const std::string& document);

/// The entity tag of the completed object; empty where the store does not tell.
std::string readCompletion(const std::string& document);

/// The document that completes an upload.
/// @param parts  numbers, from 1, and entity tags
std::string writeCompletion(const std::vector<std::pair<std::size_t, std::string>>& parts);

/// An entity tag as this client keeps it: without quotes.
std::string unquotedTag(std::string tag);

/// An entity tag as conditions have it.
std::string quotedTag(const std::string& tag);

} // namespace storage::clients::s3
