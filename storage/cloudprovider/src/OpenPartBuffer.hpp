#pragma once

#include "LocalDataVersion.hpp"
#include "Mutex.hpp"
#include "OpenFileContext.hpp"

#include <storage/cloudprovider/Buffer.hpp>
#include <storage/cloudprovider/CloudClient.hpp>

namespace storage::cloudprovider
{

/// One part of an open file: its record, its local bytes, and their state relative to the store.
///
/// Shared by the byte streams that use the part, the cache of closed parts and the upload queue. The first open() loads
/// the bytes: it downloads the part's range or creates zeros. They stay loaded after the last close(), until
/// discardIfUnmodified() or the destructor frees them.
///
/// Any thread may call any operation. Every opener may access the bytes behind data() without a lock; openers that
/// write the same bytes concurrently must coordinate.
class OpenPartBuffer : public Buffer
{
public:
    /// The address and number of the loaded bytes, both read under one lock. `data` stays valid while the part is open.
    struct View
    {
        char* data; ///< null if no bytes are loaded
        std::size_t size;
    };

    /// Construct a part whose bytes are not loaded.
    ///
    /// @param isLastPart  the last part of a file can grow to the file's part size; any other part cannot grow
    OpenPartBuffer(PartInfo info, LocalDataVersion version, bool isLastPart, OpenFileContextSharedPtr context);
    ~OpenPartBuffer() override;

    /// Return the current number of bytes in the part, which is at most capacity().
    std::size_t size() const override;

    /// Increment the open count, and load the bytes if they are not loaded.
    ///
    /// Waits while another opener is loading the bytes. If that fails, the next waiting opener loads them itself. If
    /// this call fails, the open count is unchanged.
    /// @throws CloudException from the store, or from local buffers when the disk is full
    void open() override;
    bool isOpen() const override;

    const char* data() const override;
    char* data() override;

    /// Decrement the open count. The bytes stay loaded.
    ///
    /// If the last close cannot unmap them, which is logged, they may be lost: those of an unmodified part are loaded
    /// again by the next open(); for any other part, open() throws.
    void close() override;

    /// Increment the open count without loading the bytes. Waits while another opener is loading them.
    /// @return whether the bytes are loaded; if not, the caller must load them or call decrementOpenCount()
    bool incrementOpenCount();
    void decrementOpenCount();

    /// Load the bytes from the store. If the file has one part, the range requested is that of the whole object.
    /// @throws UnknownErrorException when the store sent fewer bytes than the part has
    void download();

    /// Load the part as zeros.
    void createBlank();

    /// Install loaded bytes, reserve storage up to the part's current size, and wake a waiting opener.
    void setOpenBuffer(BufferPtr buffer);

    /// Grow the part to its capacity. The added bytes read as zeros. If the part grew, its state is NEW.
    ///
    /// If the part has any bytes, they must be loaded.
    void increaseSizeToMax();

    /// Grow the part by `amount` bytes at its end, up to its capacity.
    /// @return the size before, which is the position for the caller's bytes
    /// @throws UnknownErrorException when the disk is full; the part is unchanged
    std::size_t increaseSize(std::size_t amount);

    /// Grow the part to at least `offset` + `amount` bytes, up to its capacity. The part never shrinks.
    /// @return the size before
    /// @throws UnknownErrorException when the disk is full; the part is unchanged
    std::size_t increaseSize(std::size_t amount, std::size_t offset);

    /// Set the state to NEW. Call after changing bytes.
    void markModified();

    /// Set the state to SCHEDULED_UPLOAD and return the record to upload. Both happen under one lock, so any later
    /// write makes the part NEW again.
    PartInfo markUploading();

    /// Set the state to CLOUD and make the tag in info() the stored tag. Does nothing if the state is NEW, because the
    /// bytes have changed again.
    void markUploaded();

    /// Free the bytes if the part is not open and its state is CLOUD. Neither waits nor throws.
    void discardIfUnmodified();

    /// Open the part if its state is NEW. A part that was never written is loaded as zeros.
    /// @return whether the part was opened; the caller must then close it
    bool openIfModified();

    /// Set the tag that the store returned for the part's bytes.
    void setTag(std::string tag);

    /// Set whether this part is the whole file.
    void setSinglePartFile(bool single);

    PartInfo info() const;

    /// Return the record with the part's tag in the stored object. The tag in info() may belong to an upload that was
    /// not completed.
    PartInfo storedInfo() const;

    LocalDataVersion localDataVersion() const;

    View view();

    /// Return the offset of the part's first byte in the file. It never changes.
    std::size_t offset() const { return m_offset; }

    /// Return the maximum size of the part. It never changes.
    std::size_t capacity() const { return m_maxSize; }

    /// Return the offset in the file just past the part's last byte.
    std::size_t end() const;

private:
    BufferPtr buildOpenBuffer(std::size_t usedBytes) const;
    std::size_t growTo(std::size_t newSize) REQUIRES(m_mutex); // returns the size before

    // Innermost lock: may be taken under the stream lock, the parts mutex, the upload manager's mutex or the mutex of
    // the registry of caches. While it is held, no other lock is taken but the log's, and the store is not called. Only
    // local storage is: the buffer is mapped, unmapped, freed or given disk space, and a failure of that is logged.
    mutable Mutex m_mutex;
    ConditionVariable m_changed; // m_buffer or m_openCount changed; a woken opener wakes the next one

    PartInfo m_info GUARDED_BY(m_mutex);
    std::string m_storedTag GUARDED_BY(m_mutex); // the part's tag in the stored object
    BufferPtr m_buffer GUARDED_BY(m_mutex);      // null while the bytes are not loaded
    std::size_t m_openCount GUARDED_BY(m_mutex) = 0;
    LocalDataVersion m_localDataVersion GUARDED_BY(m_mutex);
    bool m_singlePartFile GUARDED_BY(m_mutex) = false;

    // Constant after construction.
    const std::size_t m_offset;
    const std::size_t m_maxSize;
    const OpenFileContextSharedPtr m_context;
};

using OpenPartBufferSharedPtr = std::shared_ptr<OpenPartBuffer>;

} // namespace storage::cloudprovider
