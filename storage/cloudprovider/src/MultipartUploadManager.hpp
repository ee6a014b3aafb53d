#pragma once

#include "InternalExport.hpp"
#include "OpenFileContext.hpp"

#include <storage/cloudprovider/Buffer.hpp>
#include <storage/cloudprovider/CloudClient.hpp>

#include <cstddef>
#include <deque>
#include <functional>
#include <mutex>
#include <optional>
#include <set>
#include <string>
#include <vector>

namespace storage::cloudprovider
{

/// Turn the parts of one open file into one multipart upload.
///
/// Owned by the file's OpenPartManager. Starts no threads: transfers run on whichever thread drains the queue, and
/// several threads may drain it at once. A transfer that failed waits at the back of the queue for the next drain,
/// however often it fails, until it succeeds or cancel() clears it.
///
/// For one part there is never more than one transfer in flight or waiting, so that the store ends with the bytes and
/// the tag of the newest: a newer transfer takes the place of one that waits, and waits for one that is in flight.
///
/// Any thread may call any operation.
class CLOUDPROVIDER_INTERNAL MultipartUploadManager
{
public:
    /// Called with the tag that the store gave the part, on the thread that sent it, without a lock.
    using DoneCallback = std::function<void(const std::string& tag)>;

    /// Gives the part as it is to be sent. Called once, before anything is sent, while the queue is locked: what is
    /// queued later was taken later.
    using RecordSource = std::function<PartInfo()>;

    explicit MultipartUploadManager(OpenFileContextSharedPtr context);
    MultipartUploadManager(const MultipartUploadManager&) = delete;
    MultipartUploadManager& operator=(const MultipartUploadManager&) = delete;

    /// Abort an upload that was neither completed nor cancelled. A failure is logged.
    ~MultipartUploadManager();

    /// Queue a part's bytes for sending, then drain the queue.
    ///
    /// @param takeRecord  may lock the part and must not call this object
    /// @param buffer      opened for the transfer and closed after it; holds the record's Size bytes when it is open
    /// Never throws for a failed transfer: it is logged, and the part stays queued.
    void asyncUploadPart(const RecordSource& takeRecord, BufferSharedPtr buffer, DoneCallback onDone);

    /// Queue a part for being copied by the store from the stored object, then drain the queue, in the same way.
    void asyncReusePart(PartInfo info, DoneCallback onDone);

    /// Send one part now, opening the upload if this is its first part.
    /// @param data  info.Size bytes, borrowed until the call returns
    /// @return the store's tag for the part
    std::string uploadPart(const PartInfo& info, const char* data);

    /// Let the store copy one part now, opening the upload if this is its first part.
    /// @return the store's tag for the part
    std::string reusePart(const PartInfo& info);

    /// Drain the queue. The first failure ends the draining and is thrown; the part stays queued.
    void rerunFailedUploads();

    /// Drain the queue for the last time before complete(). Throws like rerunFailedUploads().
    void joinUploads();

    /// Make the parts the stored object. Does nothing when no upload is open. After a failure the upload stays open.
    void complete(const std::vector<PartInfo>& parts);

    /// Abort the upload and clear the queue. When no upload is open the queue stays as it is: nothing in it has reached
    /// the store.
    void cancel();

    /// Set the tag that the next upload is opened with.
    void setLastTag(std::string tag);

    /// Tell whether an upload is open.
    bool isUploading() const;

private:
    struct UploadTask
    {
        PartInfo info;          // as it was when the task was made
        BufferSharedPtr buffer; // empty: the store copies the part
        bool bufferOpened = false;
        DoneCallback onDone;
    };

    void enqueue(UploadTask task); // m_mutex is held
    void drainLoggingFailure();
    void processQueue();
    std::optional<UploadTask> takeNextTask();
    void run(UploadTask& task);
    void putBack(UploadTask task);
    std::string getUploadId();

    const OpenFileContextSharedPtr m_context;

    // Guarded by m_mutex.
    std::optional<std::string> m_uploadId; // empty: no upload is open
    std::string m_lastTag;
    std::deque<UploadTask> m_queue;        // oldest first; at most one task of a part
    std::set<std::size_t> m_partsInFlight; // indexes of the parts that some thread is transferring

    // Nothing but a part's mutex is locked while this one is held, and no part's is held when it is taken. Held while
    // the upload is opened, completed or aborted: two first parts must not open two uploads. Released during transfers
    // and while a DoneCallback runs.
    mutable std::mutex m_mutex;
};

} // namespace storage::cloudprovider
