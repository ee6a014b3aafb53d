#pragma once

#include "DownloadedPartCache.hpp"
#include "MultipartUploadManager.hpp"
#include "Mutex.hpp"
#include "OpenFileContext.hpp"
#include "OpenPartBuffer.hpp"

#include <boost/thread/shared_mutex.hpp>

#include <cstddef>
#include <memory>
#include <vector>

namespace storage::cloudprovider
{

/// A byte stream's current part and its position in it.
struct OpenPartDevice
{
    std::size_t m_partOffset; ///< bytes from the start of the part
    OpenPartBufferSharedPtr m_part;
};

/// The parts of one open file, shared by all its streams.
///
/// Opens and closes the part that covers an offset and lets the file grow part by part. If the file has several parts,
/// a modified part is uploaded when its last user closes it. When the last stream unregisters, the file is written to
/// the store.
///
/// Any thread may call any operation. Transfers run on the calling thread. The destructor does not write the file; it
/// aborts an upload that is still open.
class OpenPartManager
{
public:
    /// Start with an empty new file: one part without bytes.
    explicit OpenPartManager(OpenFileContextSharedPtr context);
    OpenPartManager(const OpenPartManager&) = delete;
    OpenPartManager& operator=(const OpenPartManager&) = delete;
    ~OpenPartManager();

    /// Replace the parts by those of the stored object. Call at most once, before any stream is registered.
    ///
    /// @param requirePresent  whether a missing object is an error; if not, the file stays empty and new
    /// @throws ResourceNotFoundException when the object is missing and required
    /// @throws UnsupportedOperationException when the store numbers the parts wrongly or leaves gaps between them
    /// @throws CloudException from the store
    void initPreserveExisting(bool requirePresent);

    /// Return the file's length in bytes.
    std::size_t getFileSize() const;

    /// Return the index of the part that covers the offset. Beyond the last part, return the index that such a part
    /// would get if parts were appended up to the offset.
    std::size_t findPartIndex(std::size_t fileOffset) const;

    /// Append an empty part to the vector, which starts where the vector's last part ends.
    void addNewPartTo(std::vector<OpenPartBufferSharedPtr>& parts) const;

    /// Open the part that covers the offset. Load its bytes if needed.
    ///
    /// @param createIfNonExistent  whether to extend the file to the offset if it ends before it; the gap reads as
    ///                             zeros
    /// @return the part, to be passed to closePart(); null if the file ends at or before the offset and must not grow
    /// @throws UnsupportedOperationException when the file cannot grow because the part size is 0, or because it would
    ///         need more than 10,000 new parts at once; the file is unchanged
    /// @throws CloudException from the store, or from local buffers when the disk is full
    std::unique_ptr<OpenPartDevice> openPart(std::size_t fileOffset, bool createIfNonExistent);

    /// Close a part. If the file has several parts, a modified part is uploaded when its last user closes it. A failure
    /// of that upload is logged and the upload is retried later.
    void closePart(std::unique_ptr<OpenPartDevice> device);

    /// Retry uploads that failed earlier.
    /// @throws CloudException  the first failure; that upload is retried again later
    void rerunFailedUploads();

    /// Register a stream. Waits until no part is being opened or closed.
    /// @param mayWrite  whether the stream accepts writes
    /// @throws ResourceInUseException when the changes were abandoned: opening the file again can succeed at once
    void registerByteStream(bool mayWrite);

    /// Drop all changes instead of writing them when the caller's stream, which may write, unregisters. Does nothing if
    /// another stream is registered, or if one that may write was registered at the same time: it shares the changes
    /// and may have made some of them.
    void abandonChanges();

    /// Return whether no stream is registered and the last one has stored all changes. Waits for a flush.
    bool isStored();

    /// Unregister a stream. The last one writes the file to the store if it was modified.
    /// @throws CloudException when the file was not written; the stored object is unchanged
    void unregisterByteStream();

private:
    void extendTo(std::size_t fileOffset);
    void appendPartAfter(const OpenPartBufferSharedPtr& last);
    void scheduleUpload(const OpenPartBufferSharedPtr& part);
    bool flushParts(); // returns whether everything is stored
    void flushSinglePartFile(OpenPartBuffer& part);
    std::vector<OpenPartBufferSharedPtr> parts() const;

    mutable Mutex m_partsMutex;
    std::vector<OpenPartBufferSharedPtr> m_parts GUARDED_BY(m_partsMutex); // never empty; element i has Index i

    // Guarded by m_streamLock: exclusive to change, shared to read.
    std::size_t m_byteStreamCount = 0;
    std::size_t m_writerCount = 0; // streams that may write, registered since there was no stream
    bool m_isAbandoned = false;
    bool m_isStored = false; // by the last stream that unregistered, and none has been registered since

    DownloadedPartCache m_partCache;
    const std::unique_ptr<MultipartUploadManager> m_uploadManager;
    const OpenFileContextSharedPtr m_context;

    // Lock order: m_streamLock, then one of these three:
    //   - m_partsMutex, then a part's mutex;
    //   - the upload manager's mutex, then a part's mutex;
    //   - the cache's mutex.
    // m_partsMutex, the upload manager's mutex and the cache's mutex are never held together. m_partsMutex and the
    // upload manager's mutex are also taken without m_streamLock. m_streamLock is shared while parts are opened, closed
    // or uploaded again, including the transfers, and exclusive while a stream is registered or unregistered, including
    // the final flush. m_partsMutex is not held while a part is loaded or uploaded.
    boost::shared_mutex m_streamLock; // gives waiting writers precedence, which std::shared_mutex does not guarantee
};

} // namespace storage::cloudprovider
