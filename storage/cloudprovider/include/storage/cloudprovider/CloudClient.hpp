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

/// The attributes of one object.
struct ObjectInfo
{
    bool exists = false;                   ///< false: no object under the key; the other fields are then meaningless
    std::string tag;                       ///< identifies the version; may be empty; never read by the provider
    std::uint64_t size = 0;                ///< bytes
    boost::posix_time::ptime lastModified; ///< UTC
};

/// The parameters of a listing.
struct ListOptions
{
    std::string delimiter;     ///< keys are grouped at its first occurrence after the prefix; empty: no grouping
    std::int32_t maxKeys = -1; ///< maximum number of entries per page; -1: the store decides
};

/// One entry of a listing: an object or, with a delimiter, a group of keys, whose `key` ends in the delimiter.
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
    std::string Tag;        ///< the tag that the store gave these bytes; empty: they were never stored
};

/// Print as PartInfo{Index=0,Offset=0,Size=0,Tag=""}.
CLOUDPROVIDER_EXPORT std::ostream& operator<<(std::ostream& out, const PartInfo& part);

/// The provider's interface to a flat object store: twelve operations on UTF-8 keys.
///
/// A host implements this class for its store and passes it to buildCloudProvider(). Keys have the form that
/// utils::iriToKey() returns: UTF-8, without a leading "/"; a key that names a folder ends in "/". The empty key is the
/// root of the store: getObjectInfo() reports that it exists, so that an empty store can be listed.
///
/// Failures are thrown as CloudExceptions, with a detail that names the operation, the key and the cause. After a
/// failure the store is either unchanged or in the state that success would have left, never in between.
///
/// Threads: the provider, all iterators and all open files share one instance and call it concurrently from any thread.
/// uploadPart(), copyPart() and getObjectRange() also run concurrently for one key. The provider holds locks of an open
/// file while it calls the client for that file, and the file's streams take the same locks. A client must therefore
/// not use a stream of the file for which it is being called.
///
/// Ownership: arguments are borrowed until the call returns. The client must not keep references to streams.
class CLOUDPROVIDER_EXPORT CloudClient
{
public:
    CloudClient() = default;
    CloudClient(const CloudClient&) = delete;
    CloudClient& operator=(const CloudClient&) = delete;

    /// Return whether an object exists under exactly this key, and its attributes.
    ///
    /// A missing object is not an error: `exists` is false. The empty key exists.
    virtual ObjectInfo getObjectInfo(const std::string& key) = 0;

    /// Reject a file name that the store cannot hold, before anything is written. Returning accepts the name.
    ///
    /// Called when a file is opened with empty contents and may be created. Other operations that create objects do not
    /// call it, so putObject() and uploadPart() must check the key themselves.
    /// @param name  the last segment of the path, UTF-8, without "/"
    /// @throws InvalidLocationException with the reason in its detail
    virtual void validateObjectName(const std::string& name) = 0;

    /// List one page of the keys that begin with `prefix`, in ascending byte order.
    ///
    /// @param prefix             empty, or ends in "/"; an object under exactly this key is part of the listing
    /// @param continuationToken  in: empty for the first page, otherwise the token that the previous call stored there;
    ///                           out: the token of the next page, empty after the last page. The client defines the
    ///                           format. A token stays valid while the store changes and may be used more than once.
    /// @return the page. A page before the last may be empty. A prefix without any key is not an error: the first page
    ///         is empty and is the last.
    virtual std::vector<ObjectEntry> listObjects(
        const std::string& prefix, std::string& continuationToken, const ListOptions& options) = 0;

    /// Delete the object under the key. A missing object is not an error.
    virtual void deleteObject(const std::string& key) = 0;

    /// Write bytes `first` to `last` of the object, both inclusive, into `out`.
    ///
    /// The range (0, 0) means the whole object. With `last` less than `first` the range is empty and nothing is
    /// written. The call delivers every requested byte or throws; a range that ends beyond the object is an error.
    /// @throws ResourceNotFoundException when there is no such object
    virtual void getObjectRange(const std::string& key, std::ostream& out, std::uint64_t first, std::uint64_t last) = 0;

    /// Store the whole of `content` under the key, atomically replacing any object there.
    ///
    /// @param size  bytes in `content`; 0 stores an empty object. Content that ends earlier is an error.
    virtual void putObject(const std::string& key, std::istream& content, std::uint64_t size) = 0;

    /// Return the parts of the stored object.
    ///
    /// @return the parts in order of Index, without gaps, each with the tag that the store keeps for it. Every part but
    ///         the last has at least one byte. An empty list stands for one part without bytes; a client may return it
    ///         for an empty object.
    /// @throws ResourceNotFoundException when there is no such object
    virtual std::vector<PartInfo> getObjectParts(const std::string& key) = 0;

    /// Begin a multipart upload that will replace the object under the key on completion, and not before.
    ///
    /// Must not fail if that can be avoided: if this call fails whenever it is made until a file is closed, the close
    /// may succeed although nothing was stored. A client therefore returns an id of its own, opens the upload in the
    /// store with its first part, and refuses a key that it cannot store there.
    /// @param tag  the tag of the part that was uploaded last for this open file; before the first one, the tag that
    ///             the stored object's first part had when the file was opened; empty for a new file
    /// @return the upload id; the client defines its format
    virtual std::string createMultipartUpload(const std::string& key, const std::string& tag) = 0;

    /// Upload one part. Uploading a part with the same Index again replaces it.
    ///
    /// @param part  Index determines its position in the object; Size is the number of bytes in `content`. Offset is
    ///              right, or 0 if the caller does not know it: RemoteClient can then not send the part early.
    /// @return the tag to pass to completeMultipartUpload() for this part
    /// @throws ResourceNotFoundException when there is no such upload
    virtual std::string uploadPart(
        const std::string& key, const std::string& uploadId, const PartInfo& part, std::istream& content) = 0;

    /// Copy bytes [Offset, Offset + Size) of the object under the key into the upload, as the part with this Index. The
    /// store copies them itself.
    ///
    /// @param part  as getObjectParts() returned it, or with the tag that this client returned for the part in an
    ///              upload that has been completed since. If the client can detect that the object has changed, it must
    ///              fail.
    /// @return the tag to pass to completeMultipartUpload() for this part
    /// @throws ResourceNotFoundException when there is no such upload, or no object under the key
    virtual std::string copyPart(const std::string& key, const std::string& uploadId, const PartInfo& part) = 0;

    /// End an upload and discard its parts. The object under the key does not change.
    ///
    /// @throws ResourceNotFoundException when there is no such upload
    virtual void abortMultipartUpload(const std::string& key, const std::string& uploadId) = 0;

    /// Atomically replace the object under the key by the parts, in the order given, and end the upload.
    ///
    /// Fails when a part was never uploaded or copied, or when its tag is not the one that its last upload or copy
    /// returned. The upload then stays open and the object does not change.
    /// @param parts  every part of the new object, each with the tag returned for it; uploaded parts that are not
    ///               listed are discarded
    /// @throws ResourceNotFoundException when there is no such upload
    virtual void completeMultipartUpload(
        const std::string& key, const std::string& uploadId, const std::vector<PartInfo>& parts) = 0;

    virtual ~CloudClient() = default;
};

using CloudClientSharedPtr = std::shared_ptr<CloudClient>;

} // namespace storage::cloudprovider
