#pragma once

#include <storage/clients/common/UploadInventory.hpp>
#include <storage/clients/s3/S3Settings.hpp>
#include <storage/cloudprovider/CloudClient.hpp>

#include <memory>
#include <string>
#include <vector>

namespace storage::clients
{

namespace s3
{
class KnownVersions;
class MultipartUploads;
class Objects;
class Requester;
} // namespace s3

/// A bucket of a store that speaks the S3 protocol. The bucket must exist.
///
/// What this client promises beyond CloudClient:
/// - An object is never a mixture of two versions. Ranges are read, and unchanged parts copied, from the version that
///   getObjectParts() last answered for the key, or that this client has written since; when somebody else has changed
///   the object, the read or the completion fails. putObject() replaces whatever is there: the last writer wins.
/// - An object of at most 16 KiB comes with its parts: the next read of the whole gets it as it was opened. The 128
/// that
///   were opened last are kept until then, 2 MiB at most.
/// - getObjectParts() cuts any object by rule, however it was written, into parts that are small enough to be read on
///   their own.
/// - createMultipartUpload() only notes the upload. The store hears of it with the first part, so that a failure to
///   open one is that part's, and is reported. An upload belongs to the instance that began it;
///   abortMultipartUpload() also takes the identifiers of others, as pendingUploads() tells them.
/// - copyPart() only notes the copy, and so does uploadPart() with a part below 5 MiB when the file had other content
///   before, whose bytes wait in a temporary file. completeMultipartUpload() sees the whole file: it joins unchanged
///   neighbours into large copies, sends what is too small together with what stands beside it, several requests at a
///   time, and completes then.
/// - So the failure of a copy or of a small part is the completion's. It leaves the object as it was and the upload
///   open with all its parts: the completion may be repeated, which after a failure that may pass makes only what is
///   missing, or the upload aborted. Until then what the store has made takes room there.
/// - A completion whose answer was lost is looked into before it is repeated or called failed.
/// - What may pass is thrown as TransientException and may be repeated, by RetryingClient for example; nothing is
///   repeated here.
///
/// A detail names operation, key, the store's status, code and request, and what to do about it where that is known.
/// Details never hold secrets. HEAD has no error document; where one failed the reason is asked for with GET.
///
/// Keys have at most 1,024 bytes, objects 5 TiB in 10,000 parts of at least 5 MiB each but the last.
/// Threads: all operations may be called from any thread at the same time; each waits for the store on its own
/// connection. A completion runs its requests on threads of its own, which end before it returns; no other thread is
/// started. Only one process-wide thing is used: the initialisation of libcurl.
class S3Client : public cloudprovider::CloudClient, public UploadInventory
{
public:
    /// Sends nothing: a bucket that is not there shows at the first operation.
    /// @throws cloudprovider::InvalidLocationException when the settings make no address
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

private:
    const std::unique_ptr<s3::Requester> m_requester;
    const std::unique_ptr<s3::KnownVersions> m_versions;
    const std::unique_ptr<s3::Objects> m_objects;
    const std::unique_ptr<s3::MultipartUploads> m_uploads;
};

} // namespace storage::clients
