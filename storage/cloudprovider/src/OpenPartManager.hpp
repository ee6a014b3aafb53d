#pragma once

#include "DownloadedPartCache.hpp"
#include "InternalExport.hpp"
#include "MultipartUploadManager.hpp"
#include "OpenFileContext.hpp"
#include "OpenPartBuffer.hpp"

#include <boost/thread/shared_mutex.hpp>

#include <cstddef>
#include <memory>
#include <mutex>
#include <vector>

namespace storage::cloudprovider
{

/// What a byte stream holds while it reads or writes one part: the part, and a position in it.
struct OpenPartDevice
{
    std::size_t m_partOffset; ///< bytes from the start of the part
    OpenPartBufferSharedPtr m_part;
};

/// The parts of one open file, shared by all streams on it.
///
/// Hands out the part that covers an offset and takes it back, lets the file grow part by part, uploads a modified part
/// of a file of several parts when its last user closes it, and writes the file to the store when the last stream goes.
///
/// Any thread may call any operation. Transfers run on the calling thread. Destroying the manager does not write the
/// file; it aborts an upload that is still open.
class CLOUDPROVIDER_INTERNAL OpenPartManager
{
public:
    /// Begin with an empty new file: one part without bytes.
    explicit OpenPartManager(OpenFileContextSharedPtr context);
    OpenPartManager(const OpenPartManager&) = delete;
    OpenPartManager& operator=(const OpenPartManager&) = delete;
    ~OpenPartManager();

    /// Take over the parts of the object in the store. Call once, before any stream is registered.
    ///
    /// @param requirePresent  whether a missing object is an error; if not, the file stays empty and new
    /// @throws ResourceNotFoundException  the object is missing and required
    void initPreserveExisting(bool requirePresent);

    /// Return the file's length in bytes.
    std::size_t getFileSize() const;

    /// Return the index of the part that covers the offset; beyond the end, the index it would get if parts were added
    /// up to there.
    std::size_t findPartIndex(std::size_t fileOffset) const;

    /// Append an empty part to the vector, behind the parts that are in it.
    void addNewPartTo(std::vector<OpenPartBufferSharedPtr>& parts) const;

    /// Open the part that covers the offset, loading its bytes if needed.
    ///
    /// @param createIfNonExistent  whether the file grows up to the offset if it ends before; the gap reads as zeros
    /// @return the part, to be given back to closePart(); empty when the file ends before the offset and may not grow
    /// @throws UnsupportedOperationException when the file cannot grow because new parts have no room
    /// @throws CloudException from the store, or from local buffers when the disk is full
    std::unique_ptr<OpenPartDevice> openPart(std::size_t fileOffset, bool createIfNonExistent);

    /// Take a part back. A modified part of a file of several parts is uploaded when nobody else has it open; a failure
    /// of that upload is logged and the upload repeated later.
    void closePart(std::unique_ptr<OpenPartDevice> device);

    /// Repeat uploads that failed earlier.
    /// @throws CloudException the first failure; the upload is repeated later again
    void rerunFailedUploads();

    /// Count a stream. Waits for parts that are being opened or closed.
    void registerByteStream();

    /// Count a stream off. The last one writes the file to the store, if it was changed.
    /// @throws CloudException the file was not written, and the stored object stands as it was
    void unregisterByteStream();

private:
    void extendTo(std::size_t fileOffset);
    void appendPart(const OpenPartBufferSharedPtr& last);
    void scheduleUpload(const OpenPartBufferSharedPtr& part);
    void flushParts();
    void flushSinglePartFile(OpenPartBuffer& part);
    std::vector<OpenPartBufferSharedPtr> parts() const;

    std::vector<OpenPartBufferSharedPtr> m_parts; // guarded by m_partsMutex; never empty; element i has Index i
    mutable std::mutex m_partsMutex;
    std::size_t m_byteStreamCount = 0; // guarded by m_streamLock, held exclusively
    DownloadedPartCache m_partCache;
    const std::unique_ptr<MultipartUploadManager> m_uploadManager;
    const OpenFileContextSharedPtr m_context;

    // Lock order: m_streamLock, m_partsMutex, a part's mutex. The cache's and the upload manager's mutex are taken
    // alone. m_streamLock is shared by those who open and close parts and repeat uploads, transfers included, and
    // exclusive for registering streams and for the final flush. m_partsMutex is released before a part is loaded or
    // sent.
    boost::shared_mutex m_streamLock; // lets waiting writers in first, which the standard one does not promise
};

} // namespace storage::cloudprovider
