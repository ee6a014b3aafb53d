#pragma once

#include <storage/clients/decorators/InterceptingClient.hpp>

#include <cstddef>
#include <cstdint>
#include <memory>
#include <string>
#include <vector>

namespace storage::clients
{

class UploadPipeline;

/// Limits of a PipelinedUploadClient.
struct PipelineSettings
{
    std::size_t transfers = 8;        ///< maximum concurrent transfers over all uploads, one thread each; 0 means 1
    std::uint64_t memory = 64U << 20; ///< maximum bytes of buffers, free ones included; a part takes at least its size
};

/// Send the parts of multipart uploads concurrently, although the caller sends them one after the other.
///
/// uploadPart() reads the part's bytes into a buffer and returns at once, with a provisional tag. A thread of this
/// client sends the bytes. copyPart() does the same without bytes. completeMultipartUpload() waits for the transfers of
/// the upload, replaces the provisional tags by the store's tags, and completes the upload in the inner client.
///
/// Transfers start in the order of the calls, across all uploads. Two transfers of the same part never run at the same
/// time: the later one starts when the earlier one has ended, or replaces it if that has not started. All other calls
/// pass through unchanged. So do parts of uploads that were not opened through this instance.
///
/// With one transfer nothing is deferred: every call passes through on its caller's thread and copies no bytes.
///
/// Memory: uploadPart() blocks while all buffers are in use. A part is sent on the caller's thread, without copying its
/// bytes, if it is larger than all buffers together, or larger than the space that failed parts leave of them. Memory
/// is returned to the system when no part is in flight or kept after a failure.
///
/// Failures: a failed transfer keeps its bytes for a retry. The next uploadPart() or copyPart() of the upload throws
/// the transfer's exception, once. That call consumes no content and starts no transfer, and may be retried. If several
/// transfers failed since the last such report, only the first exception is thrown. completeMultipartUpload() retries
/// each failed part in its list once. If a part fails again, it throws that failure before anything is completed. The
/// upload stays open and the completion may be retried; uploadPart() and copyPart() do not report the failure again. So
/// an upload is completed only with every part as it was last sent. If the caller's stream cannot be read, that
/// uploadPart() fails and the part stays as it was.
///
/// Abort: abortMultipartUpload() drops the transfers that have not started or have failed. It waits for those in
/// flight, for as long as the inner client takes. If the inner client then fails to abort, the upload stays open and
/// the abort may be retried, except after a ResourceNotFoundException: then there is nothing left to abort. Completing
/// it with a part that was dropped fails with UnknownErrorException until that part is sent again. The destructor
/// aborts every upload that is still open, and logs failures. After a TransientException, it aborts no other upload.
///
/// Tags: copyPart() and createMultipartUpload() accept provisional tags, too. They pass the store's tag on if it is
/// known, which it is for the last 20,000 parts of uploads that have ended. With any other provisional tag, copyPart()
/// fails with UnknownErrorException, since this client cannot know whether the object is still the intended one.
/// createMultipartUpload() waits for that part if its transfer is waiting or in flight; otherwise it passes on no tag.
///
/// Threads: any thread may call at any time. This client starts its threads on demand, at most one per transfer, and
/// they end with it. They call the inner client, too. No lock is held during calls of the inner client. If no thread
/// can be started at all, parts are sent and copied on the caller's thread. Besides CloudExceptions a call may throw
/// std::bad_alloc. Destroy the client only when no call is in progress.
class PipelinedUploadClient : public InterceptingClient
{
public:
    explicit PipelinedUploadClient(
        std::shared_ptr<cloudprovider::CloudClient> inner, const PipelineSettings& settings = {});
    ~PipelinedUploadClient() override;

    std::string createMultipartUpload(const std::string& key, const std::string& tag) override;
    std::string uploadPart(const std::string& key, const std::string& uploadId, const cloudprovider::PartInfo& part,
        std::istream& content) override;
    std::string copyPart(
        const std::string& key, const std::string& uploadId, const cloudprovider::PartInfo& part) override;
    void abortMultipartUpload(const std::string& key, const std::string& uploadId) override;
    void completeMultipartUpload(const std::string& key, const std::string& uploadId,
        const std::vector<cloudprovider::PartInfo>& parts) override;

private:
    const std::unique_ptr<UploadPipeline> m_pipeline; // null: one transfer, every call passes through
};

} // namespace storage::clients
