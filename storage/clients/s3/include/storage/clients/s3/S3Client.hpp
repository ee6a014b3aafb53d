#pragma once

#include <storage/clients/common/RequiredVersions.hpp>
#include <storage/clients/common/UploadInventory.hpp>
#include <storage/clients/common/VersionPins.hpp>
#include <storage/clients/common/WriteConditions.hpp>
#include <storage/clients/s3/S3Settings.hpp>
#include <storage/cloudprovider/CloudClient.hpp>

#include <memory>
#include <string>
#include <vector>

namespace storage::clients
{

namespace s3
{
class MultipartUploads;
class Objects;
class Requester;
} // namespace s3

/// A bucket of a store that speaks the S3 protocol. The bucket must exist.
///
/// Guarantees beyond those of CloudClient:
/// - An object is never a mixture of two versions. Ranges are read, and unchanged parts copied, from the version that
///   getObjectParts() last returned for the key, or that this client has written since. If somebody else has changed
///   the object, the read or the completion fails. If the outcome of a write is unknown, the version stays, so that
///   reads fail until getObjectParts() is called again; see VersionPins. putObject() replaces whatever is there: the
///   last writer wins.
/// - getObjectParts() also fetches the content of an object of at most 16 KiB. The next read of the whole object
///   returns this content without a request, even if somebody else has changed the object since. The contents of the
///   last 128 objects are kept, at most 2 MiB.
/// - getObjectParts() splits every object by fixed rules, no matter how it was written, into parts that are small
///   enough to be read on their own.
/// - createMultipartUpload() sends nothing. The upload is opened at the store with its first part, so that a failure to
///   open it is that part's failure and is reported. An upload belongs to the instance that created it;
///   abortMultipartUpload() also accepts the ids of others, as pendingUploads() returns them.
/// - copyPart() only records the copy. If the file had content before, uploadPart() only records a part below 5 MiB,
///   too, and keeps its bytes in a temporary file. completeMultipartUpload() knows the whole file: it joins adjacent
///   unchanged parts into large copies, sends parts that are too small together with their neighbours, runs several
///   requests at a time, and then completes the upload.
/// - A failed copy or small part is therefore a failure of the completion. It leaves the object as it was and the
///   upload open with all its parts. The completion may be retried, or the upload aborted. After a transient failure a
///   retry transfers only the parts that are missing. Until then the transferred parts take up space in the store.
/// - Under a condition of WriteConditions, a write looks up the object first, and `If-None-Match: *` lets the store
///   compare, too, if the object must be new. Only EndpointCapabilities::conditionalWrites, with conditionalCompletion,
///   makes it one step at the store. Without conditionalWrites, a store that refuses the header gets the request again
///   without it; with it, the write fails.
/// - If the response to a completion is lost, the client finds out whether the object was stored before it completes
///   again or reports a failure.
/// - Transient failures are thrown as TransientException and may be retried, for example by RetryingClient. This client
///   itself does not retry them.
///
/// A failure's detail names the operation, the key, the store's status, error code and request id, and a remedy where
/// one is known. It never contains secrets. HEAD responses carry no error document, so after a failed HEAD the client
/// asks for the reason with GET.
///
/// Keys have at most 1,024 bytes. Objects have at most 5 TiB in 10,000 parts, of which all but the last have at least 5
/// MiB. Threads: any thread may call any operation at any time; each call waits for the store on a connection of its
/// own. A completion runs its requests on threads of its own, which end before it returns; no other threads are
/// started. The only process-wide state is the initialisation of libcurl.
class S3Client : public cloudprovider::CloudClient, public UploadInventory, public WriteConditions
{
public:
    /// Sends nothing: a missing bucket is reported by the first operation.
    /// @throws cloudprovider::InvalidLocationException when the settings are not a valid address
    explicit S3Client(const s3::S3Settings& settings);
    ~S3Client() override;

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
    bool isAtomic() const noexcept override { return m_isAtomic; }

private:
    const std::unique_ptr<s3::Requester> m_requester;
    const bool m_isAtomic;
    VersionPins m_pins;
    RequiredVersions m_required;
    const std::unique_ptr<s3::Objects> m_objects;
    const std::unique_ptr<s3::MultipartUploads> m_uploads;
};

} // namespace storage::clients
