#pragma once

#include <storage/clients/common/Content.hpp>
#include <storage/clients/common/UploadInventory.hpp>
#include <storage/clients/common/VersionPins.hpp>
#include <storage/clients/http/RequestBody.hpp>
#include <storage/cloudprovider/CloudClient.hpp>

#include <boost/date_time/posix_time/ptime.hpp>

#include <cstddef>
#include <cstdint>
#include <exception>
#include <functional>
#include <map>
#include <optional>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

namespace storage::clients
{

/// What a store can do, and the limits that it sets.
struct StoreAbilities
{
    std::uint64_t minPartSize = 5U << 20;      ///< bytes; for every part of an upload but the last; at least 1
    std::uint64_t maxPartSize = 5ULL << 30U;   ///< bytes; at least 2 * minPartSize
    std::size_t maxParts = 10'000;             ///< of one upload
    std::uint64_t maxObjectSize = 5ULL << 40U; ///< bytes
    std::uint64_t maxCopySize = 5ULL << 30U;   ///< bytes that copyObject() can copy; 0: the store lacks it
    std::uint64_t maxTakeSize = 5ULL << 30U;   ///< the same for takePart(); at least 2 * minPartSize, or 0
    bool takesWholeParts = false;              ///< the store has partEnds() and takeWholeParts()
    bool equalParts = false;            ///< no part may be larger than the first; all but the last have the same size
    std::size_t maxDeletions = 0;       ///< keys that deleteObjects() can delete at once; 0: the store lacks it
    bool conditionalTakes = false;      ///< takePart() and copyObject() check the version in one step with the copy
    bool conditionalWrites = false;     ///< putObject() and deleteObject() check their condition in one step
    bool conditionalCreation = false;   ///< completeUpload() checks in one step that there is no object
    bool conditionalCompletion = false; ///< completeUpload() checks the replaced version in one step
};

/// What the object under a key must be for a write to take effect. nullopt: anything. An empty tag: there must be no
/// object. Otherwise: the object must have this tag.
using WriteCondition = std::optional<std::string>;

/// An object as a lookup finds it.
struct StoredObject
{
    Version version;
    boost::posix_time::ptime lastModified; ///< UTC
};

struct ListingPage
{
    std::vector<cloudprovider::ObjectEntry> entries; ///< in ascending byte order; may be empty before the last page
    std::string nextToken;                           ///< empty on the last page
};

struct UploadsPage
{
    std::vector<PendingUpload> uploads;
    std::string nextToken; ///< empty on the last page
};

/// An object that is copied.
struct CopySource
{
    std::string key;
    Version version; ///< as findObject() returned it
};

/// What a written object gets besides its bytes.
struct WrittenMetadata
{
    ObjectMetadata fields;
    std::string source; ///< key of the stored object that the fields come from; empty: the file is new
};

/// A part that the store has: its number, from 1, and the tag that the store gave to it.
using NumberedTag = std::pair<std::size_t, std::string>;

/// Takes the bytes of an object in order. Called at least once for a successful response, with no bytes if there are
/// none. What it throws ends the request and reaches the caller.
using ContentReceiver = std::function<void(const Version& object, std::string_view bytes)>;

/// A distant object store: each operation is one request, or the few that stand for one.
///
/// Implement this to let RemoteClient work on a store. The client owns everything else: retries, versions, threads,
/// memory, and what a lost response means. An operation makes one attempt and does not retry, except that an HTTP
/// client may send a request again when a reused connection turns out to be closed.
///
/// Failures are CloudExceptions whose detail names the request, the key, the store's response and a remedy where one is
/// known. Each operation may throw:
/// - TransientException: the request may succeed later. It may have taken effect. UnusableResponse: it hardly will.
///   TooManyRequests: the store asks for fewer requests.
/// - PreconditionFailed: the object is not the version that the operation requires.
/// - ResourceNotFoundException: there is no such object or upload.
/// - UnsupportedOperationException: the store does not have this request.
///
/// Keys are valid: not empty, and not longer than the store allows. Any thread may call any operation at any time; each
/// call waits on its caller's thread. Arguments are borrowed until the call returns.
class RemoteStore
{
public:
    RemoteStore() = default;
    RemoteStore(const RemoteStore&) = delete;
    RemoteStore& operator=(const RemoteStore&) = delete;
    virtual ~RemoteStore() = default;

    /// What the store can do for an object with this key. May change while requests show more: if takePart() or
    /// completeUpload() throws an UnsupportedOperationException, the completion is planned again with what the store
    /// can do by then. Sends nothing.
    virtual StoreAbilities abilities(const std::string& key) const = 0;

    /// Look up an object, with its metadata. @return nullopt: there is none
    virtual std::optional<StoredObject> findObject(const std::string& key) = 0;

    /// Fetch the bytes of an object that are in the range.
    ///
    /// @param range    not empty; may end beyond the object, or be beyond it; nullopt: the whole object
    /// @param version  nullopt: whatever version is there. PreconditionFailed is thrown before any byte is received if
    ///                 the object has another tag.
    /// @return the version of the object, with its metadata unless `version` is given. Every byte of the range that the
    ///         object has was received, and matched the checksums that the store sent.
    /// @throws ResourceNotFoundException
    /// @throws TransientException possibly after bytes were received: these are right, and a retry may fetch only the
    ///         others. CorruptContent: the bytes are wrong; a retry must fetch all of them.
    virtual Version getObject(const std::string& key, const std::optional<ByteRange>& range,
        const std::optional<Version>& version, const ContentReceiver& receiver) = 0;

    /// Store an object. @return its tag
    /// @throws PreconditionFailed if conditionalWrites is set; without it, a condition may be ignored
    virtual std::string putObject(const std::string& key, RequestBody& body, const WriteCondition& condition,
        const WrittenMetadata& metadata) = 0;

    /// Delete an object. A missing object is not an error, unless the condition requires one.
    /// @throws PreconditionFailed as putObject()
    virtual void deleteObject(const std::string& key, const WriteCondition& condition) = 0;

    /// Delete objects, 1 to maxDeletions. Missing ones are not failures.
    /// @return the keys whose objects were not deleted, each with one of the exceptions above
    /// @throws UnsupportedOperationException if these must be deleted one by one
    virtual std::map<std::string, std::exception_ptr> deleteObjects(const std::vector<std::string>& keys) = 0;

    /// Store a copy of an object, with its metadata, under another key. @return the copy's tag
    ///
    /// @param source     at most maxCopySize bytes; its version is as for takePart()
    /// @param condition  of the target; may be ignored, because RemoteClient looks up the target before
    /// @throws PreconditionFailed because of the source or of the condition
    virtual std::string copyObject(
        const CopySource& source, const std::string& target, const WriteCondition& condition) = 0;

    /// List a page of keys. The parameters are those of CloudClient::listObjects().
    virtual ListingPage listObjects(
        const std::string& prefix, const std::string& token, const cloudprovider::ListOptions& options) = 0;

    /// Open a multipart upload. Once begun, the request is not ended by an interrupt, so that its result is not lost.
    /// @param metadata  of the object that it will make
    /// @return the store's id of the upload
    virtual std::string createUpload(const std::string& key, const WrittenMetadata& metadata) = 0;

    /// Send a part. A part with the same number is replaced. @return its tag, which is not empty
    /// @param number  from 1 to maxParts
    virtual std::string uploadPart(
        const std::string& key, const std::string& uploadId, std::size_t number, RequestBody& body) = 0;

    /// Where the parts of an object end, in ascending order, the last at its end. Empty: it has none, or copies are
    /// better. Called if takesWholeParts is set.
    /// @throws PreconditionFailed if the object has another version
    virtual std::vector<std::uint64_t> partEnds(const std::string& /*key*/, const Version& /*version*/) { return {}; }

    /// Make parts of the object under the key parts of the upload, without a copy. Called if takesWholeParts is set.
    /// @param version  of the object; see takePart()
    /// @param range    any number of parts, as partEnds() told; they count as one part of the upload, of any size
    /// @return what completeUpload() gets as their tag, which is not empty
    virtual std::string takeWholeParts(const std::string& /*key*/, const std::string& /*uploadId*/,
        std::size_t /*number*/, const Version& /*version*/, const ByteRange& /*range*/)
    {
        return {};
    }

    /// Let the store copy a range of an object, mostly the one under the key, into the upload. @return the part's tag,
    /// which is not empty
    /// @param source  PreconditionFailed may be thrown if the object has another tag, and is if conditionalTakes is set
    /// @param range   within the object; not empty
    virtual std::string takePart(const std::string& key, const std::string& uploadId, std::size_t number,
        const CopySource& source, const ByteRange& range) = 0;

    /// Replace the object by the parts, and end the upload. @return the object's tag; empty: the store did not say
    /// @param parts      in ascending order of their numbers; at least one
    /// @param condition  checked in one step if conditionalCreation or conditionalCompletion says so, else ignored
    virtual std::string completeUpload(const std::string& key, const std::string& uploadId,
        const std::vector<NumberedTag>& parts, const WriteCondition& condition) = 0;

    /// End an upload and drop its parts. @throws ResourceNotFoundException if it does not exist any more
    virtual void abortUpload(const std::string& key, const std::string& uploadId) = 0;

    /// Whether an upload is open.
    virtual bool isOpen(const std::string& key, const std::string& uploadId) = 0;

    /// List a page of the open uploads of all clients. @param token  empty: the first page
    virtual UploadsPage listUploads(const std::string& token) = 0;

    /// Whether an object is what putObject() makes of this body, or completeUpload() of this upload. Called when the
    /// response to such a request was lost. @return false also: that cannot be told
    /// @param object  as findObject() returned it
    virtual bool isMadeOf(const std::string& key, const StoredObject& object, RequestBody& body) = 0;
    virtual bool isMadeOf(const std::string& key, const StoredObject& object, const std::string& uploadId,
        const std::vector<NumberedTag>& parts) = 0;
};

} // namespace storage::clients
