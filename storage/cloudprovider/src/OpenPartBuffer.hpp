#pragma once

#include "InternalExport.hpp"
#include "LocalDataVersion.hpp"
#include "OpenFileContext.hpp"

#include <storage/cloudprovider/Buffer.hpp>
#include <storage/cloudprovider/CloudClient.hpp>

#include <condition_variable>
#include <mutex>

namespace storage::cloudprovider
{

/// One part of an open file: its record, its local bytes, and how they relate to the store.
///
/// Shared by the byte streams that use the part, the cache of closed parts and the upload queue. The bytes are loaded
/// when the first user opens the part, by a ranged download or as zeros, stay loaded after the last user has closed it,
/// and are freed by discardIfUnmodified() or with the part.
///
/// Any thread may call any operation. The bytes behind data() are touched without a lock by everyone who has the part
/// open; openers that write the same bytes at once must agree among themselves.
class CLOUDPROVIDER_INTERNAL OpenPartBuffer : public Buffer
{
public:
    /// The loaded bytes as they are at one moment. `data` stays valid while the part is open.
    struct View
    {
        char* data;
        std::size_t size;
    };

    /// Describe a part whose bytes are not loaded.
    ///
    /// @param isLastPart  the last part of a file may grow to the file's part size; any other keeps its size
    OpenPartBuffer(PartInfo info, LocalDataVersion version, bool isLastPart, OpenFileContextSharedPtr context);
    ~OpenPartBuffer() override;

    /// Return the number of bytes in the part; it grows, up to capacity().
    std::size_t size() const override;

    /// Count a user, and load the bytes if nobody has.
    ///
    /// Waits while another opener is loading them. When loading fails the user is not counted, and the next waiting
    /// opener tries for itself.
    /// @throws CloudException from the store, or from local buffers when the disk is full
    void open() override;
    bool isOpen() const override;

    const char* data() const override;
    char* data() override;

    /// Count a user off. The bytes stay loaded.
    void close() override;

    /// Count a user without loading anything. Waits while another opener is loading.
    /// @return whether the bytes are loaded; if not, the caller loads them or counts itself off
    bool incrementOpenCount();
    void decrementOpenCount();

    /// Load the bytes from the store. The whole object is asked for when it is this one part.
    /// @throws UnknownErrorException when the store sent fewer bytes than the part has
    void download();

    /// Load the part as zeros.
    void createBlank();

    /// Install loaded bytes, with room for all that the part holds by then, and wake an opener that waits for them.
    void setOpenBuffer(BufferPtr buffer);

    /// Grow the part to its capacity. What is new reads as zeros, and a part that grew is NEW.
    ///
    /// The bytes of a part that has any must be loaded.
    void increaseSizeToMax();

    /// Grow the part by `amount` bytes at its end, no further than its capacity.
    /// @return the size before, which is where the caller's bytes go
    /// @throws UnknownErrorException when the disk has no room; the part is as before
    std::size_t increaseSize(std::size_t amount);

    /// Grow the part so that it holds `amount` bytes from `offset`, no further than its capacity; it never shrinks.
    /// @return the size before
    /// @throws UnknownErrorException when the disk has no room; the part is as before
    std::size_t increaseSize(std::size_t amount, std::size_t offset);

    /// Say that the bytes differ from the store's. Call after changing them.
    void markModified();

    /// Say that an upload begins, and return the record that it shall carry: both at one moment, so that whatever is
    /// written from then on makes the part NEW again.
    PartInfo markUploading();

    /// Say that the store has the bytes, unless they have changed again meanwhile.
    void markUploaded();

    /// Free the bytes if nobody uses the part and the store has them.
    void discardIfUnmodified();

    /// Open the part if it must be uploaded; a part that was never written is loaded as zeros.
    /// @return whether it was opened, and must be closed by the caller
    bool openIfModified();

    /// Remember the tag that the store gave the part's bytes.
    void setTag(std::string tag);

    /// Say whether the file consists of this one part.
    void setSinglePartFile(bool single);

    PartInfo info() const;

    /// Return the record with the tag that the part has in the stored object. The tag in info() may be one that an
    /// upload gave which was not completed.
    PartInfo storedInfo() const;

    LocalDataVersion localDataVersion() const;

    /// Return the loaded bytes; data is null when there are none.
    View view();

    /// Return the part's place in the file, which never changes.
    std::size_t offset() const { return m_offset; }

    /// Return the largest size that the part may reach, which never changes.
    std::size_t capacity() const { return m_maxSize; }

    /// Return the offset in the file of the first byte behind the part.
    std::size_t end() const;

private:
    BufferPtr buildOpenBuffer(std::size_t usedBytes) const;
    std::size_t growTo(std::size_t newSize); // m_mutex is held

    // Guarded by m_mutex.
    PartInfo m_info;
    std::string m_storedTag; // of the part in the stored object
    BufferPtr m_buffer;      // empty while the bytes are not loaded
    std::size_t m_openCount = 0;
    LocalDataVersion m_localDataVersion;
    bool m_singlePartFile = false;

    // Constant after construction.
    const std::size_t m_offset;
    const std::size_t m_maxSize;
    const OpenFileContextSharedPtr m_context;

    // The innermost lock of the part layer: nothing is locked and no store is called while it is held.
    mutable std::mutex m_mutex;
    std::condition_variable m_changed; // m_buffer or m_openCount changed; every woken opener wakes the next one
};

using OpenPartBufferSharedPtr = std::shared_ptr<OpenPartBuffer>;

} // namespace storage::cloudprovider
