#pragma once

#include "Mutex.hpp"
#include "OpenFileContext.hpp"

#include <storage/cloudprovider/Buffer.hpp>
#include <storage/cloudprovider/CloudClient.hpp>

#include <cstddef>
#include <functional>
#include <list>
#include <optional>
#include <string>
#include <vector>

namespace storage::cloudprovider
{

/// Turns the parts of one open file into one multipart upload.
///
/// Owned by the file's OpenPartManager. Starts no threads: transfers run on the threads that drain the queue, of which
/// there may be several at once. A failed transfer goes to the back of the queue and is retried by the next drain.
/// There is no limit to the retries: the transfer stays queued until it succeeds or cancel() clears the queue.
///
/// A part has at most one transfer in flight and at most one in the queue. A new transfer replaces a queued one of the
/// same part and starts only after the one in flight has ended. The store therefore ends with the newest bytes and
/// their tag.
///
/// Any thread may call any operation.
class MultipartUploadManager
{
public:
    /// Called with the tag that the store returned for the part, on the thread that transferred it, without the lock.
    using DoneCallback = std::function<void(const std::string& tag)>;

    /// Returns the record of the part as it is to be uploaded. Called once, before the transfer, under the lock of the
    /// queue. The order of the queue is therefore the order in which the records were taken.
    using RecordSource = std::function<PartInfo()>;

    explicit MultipartUploadManager(OpenFileContextSharedPtr context);
    MultipartUploadManager(const MultipartUploadManager&) = delete;
    MultipartUploadManager& operator=(const MultipartUploadManager&) = delete;

    /// Abort an upload that was neither completed nor cancelled. A failure is logged.
    ~MultipartUploadManager();

    /// Queue the upload of a part, then drain the queue. A failed transfer is logged and stays queued; it does not
    /// throw.
    ///
    /// @param takeRecord  may lock the part; must not call this object
    /// @param buffer      opened before the transfer and closed after it; while open it has at least the record's Size
    ///                    bytes
    void asyncUploadPart(const RecordSource& takeRecord, BufferSharedPtr buffer, DoneCallback onDone);

    /// Queue a server-side copy of a part from the stored object, then drain the queue. Failures as in
    /// asyncUploadPart().
    void asyncReusePart(PartInfo info, DoneCallback onDone);

    /// Upload one part now. Opens the multipart upload if none is open.
    /// @param data  info.Size bytes, borrowed until the call returns
    /// @return the tag that the store returned for the part
    std::string uploadPart(const PartInfo& info, const char* data);

    /// Make the server-side copy of one part now. Opens the multipart upload if none is open.
    /// @return the tag that the store returned for the part
    std::string reusePart(const PartInfo& info);

    /// Drain the queue. The first failure stops this and is thrown; the failed transfer stays queued.
    void rerunFailedUploads();

    /// Drain the queue before complete(). Throws like rerunFailedUploads().
    void joinUploads();

    /// Complete the upload with these parts. Does nothing if no upload is open. After a failure the upload stays open.
    void complete(const std::vector<PartInfo>& parts);

    /// Abort the upload and clear the queue. Does nothing if no upload is open; the queue is not cleared either.
    void cancel();

    /// Set the tag that is passed to the store when the next upload is opened.
    void setLastTag(std::string tag);

    /// Return whether an upload is open.
    bool isUploading() const;

private:
    struct UploadTask
    {
        PartInfo info;          // as it was when the task was created
        BufferSharedPtr buffer; // null: a server-side copy
        DoneCallback onDone;
    };

    // Tasks only move from list to list. That takes no memory, so no task is lost when there is none.
    using UploadTasks = std::list<UploadTask>;

    static bool holds(const UploadTasks& tasks, std::size_t index);
    void enqueue(UploadTasks& task) REQUIRES(m_mutex); // the only one in its list
    void processQueueAndLogFailure();
    void processQueue();
    std::optional<UploadTasks::iterator> takeNextTask();
    void transfer(UploadTask& task);
    void requeue(UploadTasks::iterator task);
    std::string getUploadId();

    const OpenFileContextSharedPtr m_context;

    // Lock order: the file's stream lock, then this one, then a part's mutex (taken by a RecordSource). The stream lock
    // is usually held when this one is taken; the parts mutex, the cache's mutex and a part's mutex never are. Held
    // while the upload is opened, completed or aborted, so that two first parts do not open two uploads. Not held
    // during transfers and while a DoneCallback runs.
    mutable Mutex m_mutex;
    std::optional<std::string> m_uploadId GUARDED_BY(m_mutex); // empty: no upload is open
    std::string m_lastTag GUARDED_BY(m_mutex);                 // of the part uploaded last, or as set by setLastTag()
    UploadTasks m_queue GUARDED_BY(m_mutex);                   // oldest first; at most one task per part
    UploadTasks m_inFlight GUARDED_BY(m_mutex);                // being transferred; at most one task per part
};

} // namespace storage::cloudprovider
