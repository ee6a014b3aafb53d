#pragma once

#include <storage/clients/common/UploadInventory.hpp>

#include <storage/cloudprovider/CloudClient.hpp>

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace storage::clients
{

class MemoryStore;

/// A multipart upload that was neither completed nor aborted.
struct OpenUpload
{
    std::string key;
    std::string uploadId;
    std::string tag;                ///< the argument of createMultipartUpload()
    std::vector<std::size_t> parts; ///< indexes of the parts that were sent or copied, ascending
    boost::posix_time::ptime created;
};

/// An object store in memory, for tests, examples and measurements: the whole contract of CloudClient.
///
/// Contents are immutable and shared: putting and uploading copies bytes once, copying parts and completing uploads
/// never does, and a reader goes on reading what it began to read. Bytes stay in memory while any object, upload or
/// reader uses a part of the content that they were stored with.
///
/// Every part and object gets a tag of its own, also when its bytes are not new, so a stale copy is always noticed.
/// Parts are returned as they were completed, numbered from 0; an object put whole is one part. Names and keys are
/// judged by checkObjectName() and checkKey().
///
/// Threads: everything may be called at any time from any thread. No lock is held while a content stream or the clock
/// is used.
class MemoryClient : public cloudprovider::CloudClient, public UploadInventory
{
public:
    using Clock = std::function<boost::posix_time::ptime()>;

    static constexpr std::size_t defaultPageSize = 1000; // as S3 pages its listings

    /// Begin with an empty store.
    ///
    /// @param clock  gives the modification time of what is stored, UTC; empty: the system's clock
    explicit MemoryClient(Clock clock = {});
    ~MemoryClient() override;

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

    // Direct access, for tests: not seen by any decorator.

    /// Store an object, replacing an existing one. @throws InvalidLocationException for a key that is refused
    void put(const std::string& key, std::string_view content);

    /// The object's bytes; nothing when there is no such object.
    std::optional<std::string> get(const std::string& key) const;

    /// Remove an object. @return whether it existed
    bool remove(const std::string& key);

    /// All keys in ascending byte order.
    std::vector<std::string> keys() const;

    /// The uploads that are open now, in the order in which they were opened.
    std::vector<OpenUpload> openUploads() const;

    /// Put at most so many entries into one page, at least 1. Affects the pages that are listed later.
    void setPageSize(std::size_t entries) noexcept;

private:
    const Clock m_clock;
    const std::unique_ptr<MemoryStore> m_store;
    std::atomic<std::size_t> m_pageSize = defaultPageSize;
};

} // namespace storage::clients
