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

/// What a PipelinedUploadClient may use.
struct PipelineSettings
{
    std::size_t transfers = 8; ///< parts on their way at a time, all uploads together, each on a thread; 0 is as 1
    std::uint64_t memory = 64U << 20; ///< most bytes of buffers, free ones included; parts need at least their size
};

/// Send the parts of uploads several at a time, although the caller sends them one after the other.
///
/// uploadPart() takes the part's bytes over and answers at once with a tag of this client's own, while a thread of this
/// client sends them; copyPart() likewise, without bytes. completeMultipartUpload() waits for the upload's transfers,
/// puts the real tags in place and completes below. Transfers begin in the order of the calls, whatever upload they
/// belong to. Of two transfers of the same part the later begins when the earlier has ended, or replaces it if that has
/// not begun. Everything else passes as it is, and so do parts of uploads that were not begun through this instance.
///
/// With one transfer nothing is deferred: every call passes, on its caller's thread and without a copy.
///
/// Memory: uploadPart() waits while the buffers are all in use. A part that is larger than all of them together, or
/// that finds too many kept for failed parts, is sent on the caller's thread without a copy. Memory is given back to
/// the system when no part is on its way or kept.
///
/// Failures: a transfer that failed keeps its bytes. What it threw is thrown once by the next uploadPart() or
/// copyPart() of the upload, which then takes nothing and may be made again; of several that failed since the last such
/// report, only the first is told there. completeMultipartUpload() tries the failed parts that are listed once more,
/// and throws what that throws before anything is completed; the upload stays open, and completing may be tried again.
/// So an upload is complete only with every part as it was last sent. A part whose bytes cannot be read from the
/// caller's stream fails its own call and leaves the part as it was.
///
/// abortMultipartUpload() drops what has not begun or has failed and waits for what is under way, which takes as long
/// as a transfer may take below. If the client below then fails to abort, the upload stays open and may be aborted
/// again; completing it with a part that was dropped fails with UnknownErrorException until that part is sent anew.
/// Destruction aborts every upload that is still open; what fails then is logged.
///
/// Tags: an own tag stands for the real one in copyPart() and createMultipartUpload() too, where the real one is known:
/// for the last 20,000 parts of uploads that have ended. A copyPart() with another own tag fails with
/// UnknownErrorException, as nobody could say whether the object is the one that was meant; a createMultipartUpload()
/// waits for that part if it is on its way, and otherwise tells the client below no tag.
///
/// Threads: any, at the same time. Own threads start when they are needed first, at most one for each transfer, and end
/// with the client; calls of the client below come from them too. No lock is held meanwhile. Where not even one can be
/// started, parts are sent and copied on the caller's thread. Besides CloudExceptions a call may throw std::bad_alloc
/// for want of memory. Destroy it when no call is under way.
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
    const std::unique_ptr<UploadPipeline> m_pipeline; // null: there is one transfer
};

} // namespace storage::clients
