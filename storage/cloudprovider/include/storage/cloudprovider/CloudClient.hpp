#pragma once

#include <storage/cloudprovider/Export.hpp>

#include <boost/date_time/posix_time/posix_time_types.hpp>

#include <cstddef>
#include <cstdint>
#include <iosfwd>
#include <memory>
#include <string>
#include <vector>

namespace storage::cloudprovider
{

/// What a store knows of one object.
struct ObjectInfo
{
    bool exists = false;                   ///< false: the store holds nothing under the key, and nothing below counts
    std::string tag;                       ///< opaque; kept by the store with the object, never read by the provider
    std::uint64_t size = 0;                ///< bytes
    boost::posix_time::ptime lastModified; ///< UTC
};

/// How a listing is asked for.
struct ListOptions
{
    std::string delimiter;     ///< keys are grouped at its first occurrence after the prefix; empty: no grouping
    std::int32_t maxKeys = -1; ///< most entries of one page; -1: as many as the store likes to send
};

/// One line of a listing: an object, or with a delimiter a group of keys, whose `key` then ends in the delimiter.
struct ObjectEntry
{
    std::string key;                       ///< the full UTF-8 key, prefix included
    std::uint64_t size = 0;                ///< bytes; 0 for a group
    boost::posix_time::ptime lastModified; ///< UTC; not_a_date_time for a group that has no object of its own
};

/// One part of a stored object or of an open file.
struct PartInfo
{
    std::size_t Index = 0;  ///< zero-based number of the part in the file
    std::size_t Offset = 0; ///< bytes from the start of the file to the part's first byte
    std::size_t Size = 0;   ///< bytes
    std::string Tag;        ///< the store's tag of these bytes; empty: they were never in the store
};

/// Print as PartInfo{Index=0,Offset=0,Size=0,Tag=""}.
CLOUDPROVIDER_EXPORT std::ostream& operator<<(std::ostream& out, const PartInfo& part);

/// A flat object store, as the provider needs it: twelve operations on UTF-8 keys.
///
/// A host implements this for its store and hands it to buildCloudProvider(). Keys are what
/// utils::iriToKey() makes: UTF-8, without a leading "/"; a key that names a folder ends in "/". The empty key is the
/// store's root: getObjectInfo() answers that it exists, so that an empty store can be listed.
///
/// Failures are thrown as CloudExceptions; a client adds a detail that names operation, key and cause. A failed
/// operation leaves the store as it was, or as if the operation had succeeded; never in between.
///
/// Threads: the provider, every iterator and every open file share one instance and call it from any thread at the
/// same time; uploadPart(), copyPart() and getObjectRange() run concurrently even for one key. Calls about an open file
/// are made under locks of that file, which its streams take too: a client must not use streams of the file that it is
/// called for.
///
/// Ownership: arguments are borrowed until the call returns; streams must not be kept.
class CLOUDPROVIDER_EXPORT CloudClient
{
public:
    CloudClient() = default;
    CloudClient(const CloudClient&) = delete;
    CloudClient& operator=(const CloudClient&) = delete;

    /// Tell whether an object exists under exactly this key, and describe it.
    ///
    /// A missing object is no failure: `exists` is false. The empty key exists.
    virtual ObjectInfo getObjectInfo(const std::string& key) = 0;

    /// Refuse a file name that the store could not keep, before anything is written.
    ///
    /// Asked when a file is opened to be written afresh. Other ways to create an object do not ask, so putObject() and
    /// createMultipartUpload() judge for themselves.
    /// @param name  the last segment of the path, UTF-8, without "/"
    /// @throws InvalidLocationException with the reason in its detail; returning accepts the name
    virtual void validateObjectName(const std::string& name) = 0;

    /// List one page of the keys that begin with `prefix`, in ascending byte order.
    ///
    /// @param prefix             empty, or ends in "/"; an object under exactly this key is part of the listing
    /// @param continuationToken  in: empty for the first page, else what the last call stored there; out: the token of
    ///                           the next page, empty after the last one. Tokens are the client's own, stay valid while
    ///                           the store changes, and may be used more than once.
    /// @return the page; it may be empty although a token says that there is more, and a prefix without any key is no
    ///         failure: the page is empty
    virtual std::vector<ObjectEntry> listObjects(
        const std::string& prefix, std::string& continuationToken, const ListOptions& options) = 0;

    /// Remove the object under the key. A missing object is no failure.
    virtual void deleteObject(const std::string& key) = 0;

    /// Write bytes [first, last] of the object, both inclusive, into `out`.
    ///
    /// The range (0, 0) means the whole object. A range whose last byte lies before its first is empty: nothing is
    /// written. Every byte asked for is delivered or the call throws; a range that ends beyond the object has failed.
    /// @throws ResourceNotFoundException when there is no such object
    virtual void getObjectRange(const std::string& key, std::ostream& out, std::uint64_t first, std::uint64_t last) = 0;

    /// Store the whole of `content` under the key, replacing what stood there in one step.
    ///
    /// @param size  bytes in `content`; 0 is an empty object. Content that ends earlier fails the call.
    virtual void putObject(const std::string& key, std::istream& content, std::uint64_t size) = 0;

    /// Tell how the stored object is cut into parts.
    ///
    /// @return the parts in order of Index, each beginning where the one before ends, with the tag that the store
    ///         keeps for it; an empty list means one part, and is what an object without bytes may answer.
    ///         Every part but the last has at least one byte.
    /// @throws ResourceNotFoundException when there is no such object
    virtual std::vector<PartInfo> getObjectParts(const std::string& key) = 0;

    /// Begin an upload in parts that will replace the object under the key.
    ///
    /// @param tag  a tag of the file that is being written: the first stored part's when it was opened, or that of the
    ///             part sent last; empty for a new file
    /// @return an identifier of the client's own. Nothing is visible under the key before completion.
    virtual std::string createMultipartUpload(const std::string& key, const std::string& tag) = 0;

    /// Send one part. Sending a part of the same Index again replaces it.
    ///
    /// @param part     Index places it; Size is the number of bytes that `content` holds
    /// @return the tag that completeMultipartUpload() must be given for this part
    /// @throws ResourceNotFoundException when there is no such upload
    virtual std::string uploadPart(
        const std::string& key, const std::string& uploadId, const PartInfo& part, std::istream& content) = 0;

    /// Let the store take bytes [Offset, Offset + Size) of the object now under the key as the part with this Index.
    ///
    /// @param part  as getObjectParts() gave it, or with the tag that this client returned for the part in an upload
    ///              completed since. A client that can tell must fail when the object has changed.
    /// @return the tag that completeMultipartUpload() must be given for this part
    virtual std::string copyPart(const std::string& key, const std::string& uploadId, const PartInfo& part) = 0;

    /// End an upload and drop what was sent. The object under the key stays as it is.
    virtual void abortMultipartUpload(const std::string& key, const std::string& uploadId) = 0;

    /// Make the parts, in the order given, the object under the key, in one step, and end the upload.
    ///
    /// @param parts  every part of the new object, each with the tag returned for it; parts that were sent and are not
    ///               listed are dropped. Fails, and leaves the upload open and the object as it was, when a part was
    ///               never sent or its tag is not the one of its last upload.
    virtual void completeMultipartUpload(
        const std::string& key, const std::string& uploadId, const std::vector<PartInfo>& parts) = 0;

    virtual ~CloudClient() = default;
};

using CloudClientSharedPtr = std::shared_ptr<CloudClient>;

} // namespace storage::cloudprovider
