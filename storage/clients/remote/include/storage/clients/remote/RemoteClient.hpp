#pragma once

#include <storage/clients/common/ObjectCopier.hpp>
#include <storage/clients/common/ObjectDownloader.hpp>
#include <storage/clients/common/ObjectRemover.hpp>
#include <storage/clients/common/ObjectUploader.hpp>
#include <storage/clients/common/PinnedVersions.hpp>
#include <storage/clients/common/RequiredVersions.hpp>
#include <storage/clients/common/StoreCounters.hpp>
#include <storage/clients/common/UploadInventory.hpp>
#include <storage/clients/common/VersionPins.hpp>
#include <storage/clients/common/WriteConditions.hpp>
#include <storage/clients/remote/RemoteSettings.hpp>
#include <storage/clients/remote/RemoteStore.hpp>
#include <storage/cloudprovider/CloudClient.hpp>

#include <exception>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <vector>

namespace storage::clients
{

/// The CloudClient over any RemoteStore.
///
/// Versions: an object is never a mixture of two. Ranges are read, and unchanged parts copied, from the version that
/// getObjectParts() last returned for the key, or that this client has written since. If somebody else has changed the
/// object, the read or the completion fails. If the outcome of a write is unknown, the version stays, so that reads
/// fail until getObjectParts() is called again; see VersionPins. putObject() replaces whatever is there: the last
/// writer wins.
///
/// Retries: a request that fails with a TransientException is sent again, after a random time that doubles on average,
/// until RetryPolicy::budget is used up; after an UnusableResponse only once. After a TooManyRequests, all requests
/// wait for turns, whose rate is halved at each refusal and rises again while there is none. A read that broke goes on
/// behind the last byte that it delivered. A caller's stream is written in order. Only if delivered bytes turn out to
/// be wrong, or if this client has replaced the object meanwhile, is it rewound and written again; if it cannot be
/// rewound, the call fails. So do not pass a file stream opened for appending, which writes at the end wherever it is
/// rewound to. If the response to a write is lost, the client finds out whether the write took effect before it repeats
/// one that may not take effect twice. When a request of an upload has used up its budget, all calls of this upload
/// fail at once for the time of another budget, except the first abort, which makes one attempt.
///
/// Reads: getObjectParts() splits every object by fixed rules, however it was written, into parts that are small enough
/// to be read on their own. It also fetches the first 16 KiB. If that is the whole object, the next read of it returns
/// this content without a request, even if somebody else has changed the object since; 128 objects and 2 MiB are kept.
/// What a sequential reader will read next is prefetched, in requests of up to 4 MiB. Memory that a reader has left
/// unread is given to others. A failed prefetch is logged and not an error.
///
/// Uploads: createMultipartUpload() sends nothing. The upload is opened at the store with its first part, so that a
/// failure to open it is that part's failure. uploadPart() reads the content into a buffer and returns; the part is
/// sent in the background. It waits while there is no buffer, and while RemoteSettings::transfers parts of the upload
/// are on the way. A part that is larger than half of RemoteSettings::memory is sent before the call returns, one that
/// is smaller than the store accepts is kept in a temporary file until the completion. In a long file, several
/// consecutive parts become one part of the store, so that StoreAbilities::maxParts last for
/// StoreAbilities::maxObjectSize. They are kept in the temporary file, too, and are sent in the background when all of
/// them are there. copyPart() only records the copy. completeMultipartUpload() knows the whole file: it joins adjacent
/// unchanged parts into large copies, sends parts that are too small together with their neighbours, runs several
/// requests at a time, and then completes the upload. An upload belongs to the instance that created it;
/// abortMultipartUpload() also accepts the ids of others, as pendingUploads() returns them. The destructor aborts every
/// upload that is still open, and logs failures.
///
/// Failures of parts: the next uploadPart() or copyPart() of the upload throws the failure of a part that could not be
/// sent, once; that call has no effect and may be repeated. The bytes of the part are kept in a temporary file, and the
/// completion sends them again. A failed completion leaves the object as it was and the upload open with all its parts.
/// It may be repeated, which transfers only what is missing, or the upload aborted.
///
/// Conditions: under a condition of WriteConditions, a write looks up the object first, unless the store compares the
/// version in one step, as its StoreAbilities say.
///
/// The tag of a part is `UPLOAD.INDEX.GENERATION` until the file is opened again. It stands for the object that the
/// upload has made; the last 4,096 uploads are remembered.
///
/// Metadata: a write of a key that this client has opened or written before, and not deleted since, changes a file, and
/// the object keeps what the store has with it besides its bytes, such as its type. Any other write makes a new file,
/// which gets RemoteSettings::newMetadata, whatever object it replaces.
///
/// Threads: any thread may call any operation at any time. At most RemoteSettings::transfers threads are started, on
/// demand, and end with the client. Their requests, and those that callers wait for, run concurrently. No lock is held
/// during a request, except that the parts of an upload wait while it is opened. Destroy the client only when no call
/// is in progress.
class RemoteClient : public cloudprovider::CloudClient,
                     public UploadInventory,
                     public WriteConditions,
                     public ObjectCopier,
                     public ObjectDownloader,
                     public ObjectRemover,
                     public ObjectUploader,
                     public StoreCounters,
                     public PinnedVersions
{
public:
    /// Sends nothing.
    RemoteClient(std::unique_ptr<RemoteStore> store, const RemoteSettings& settings);
    ~RemoteClient() override;

    cloudprovider::ObjectInfo getObjectInfo(const std::string& key) override;
    void validateObjectName(const std::string& name) override;
    std::vector<cloudprovider::ObjectEntry> listObjects(
        const std::string& prefix, std::string& continuationToken, const cloudprovider::ListOptions& options) override;
    void deleteObject(const std::string& key) override;
    void getObjectRange(const std::string& key, std::ostream& out, std::uint64_t first, std::uint64_t last) override;
    void putObject(const std::string& key, std::istream& content, std::uint64_t size) override;
    std::vector<cloudprovider::PartInfo> getObjectParts(const std::string& key) override;
    std::string createMultipartUpload(const std::string& key, const std::string& tag) override;
    std::string uploadPart(const std::string& key, const std::string& uploadId, const cloudprovider::PartInfo& part,
        std::istream& content) override;
    std::string copyPart(
        const std::string& key, const std::string& uploadId, const cloudprovider::PartInfo& part) override;
    void abortMultipartUpload(const std::string& key, const std::string& uploadId) override;
    void completeMultipartUpload(const std::string& key, const std::string& uploadId,
        const std::vector<cloudprovider::PartInfo>& parts) override;

    std::vector<PendingUpload> pendingUploads() override;

    std::unique_ptr<Condition> requireVersion(const std::string& key, const std::string& tag) override;
    bool isAtomic() const noexcept override;

    /// One request, or for an object that is too large for that, an upload of ranges that the store copies, several at
    /// a time. A condition of the target is checked just before, even if isAtomic() is true, but for such an upload.
    std::string copyObject(const std::string& source, const std::string& target) override;

    /// One request for an object of up to 1 MiB. The rest of a larger one follows in ranges of 8 MiB, of which
    /// RemoteSettings::transfers are on the way at a time; for an ordered sink, they are smaller if that takes more
    /// than half of RemoteSettings::memory. A broken range goes on behind its last byte.
    void downloadObject(const std::string& key, const Sink& sink) override;

    /// One request for an object of up to twice the store's minimum part size. A larger one is an upload, whose parts
    /// are read by the threads that send them, RemoteSettings::transfers at a time. Their bytes are read twice if the
    /// store wants a hash before them. After a failure the upload is aborted. The last writer wins.
    void uploadObject(const std::string& key, const Source& source) override;

    /// One request for an object below the store's minimum part size. A larger one is an upload of parts of that size,
    /// as by uploadPart(). After a failure the upload is aborted. The last writer wins.
    void uploadStream(const std::string& key, const ReadNext& read) override;

    /// In batches, or one after the other where the store cannot do that. What fails temporarily is retried.
    std::map<std::string, std::exception_ptr> deleteObjects(const std::vector<std::string>& keys) override;

    std::optional<PinnedVersion> pinnedVersion(const std::string& key) override;

    /// Counts the attempts at requests to the store. Lookups that a write needs belong to its attempt.
    CallSnapshot callSnapshot() const override;

    /// What the requests in progress wait for.
    struct Waiting
    {
        unsigned failedAttempts = 0;      ///< of the request that has failed most often
        RetryClock::Duration quietTime{}; ///< since an attempt of any request has ended, or the only ones have begun
    };

    /// For a host that shows why nothing happens. All zero: no request is in progress. Any thread may call this; it
    /// does not block.
    Waiting waiting() const;

private:
    class Engine;
    const std::unique_ptr<Engine> m_engine;
};

} // namespace storage::clients
