#pragma once

#include <storage/clients/common/PinnedVersions.hpp>
#include <storage/clients/common/RequiredVersions.hpp>
#include <storage/clients/common/UploadInventory.hpp>
#include <storage/clients/common/VersionPins.hpp>
#include <storage/clients/common/WriteConditions.hpp>

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

/// An object store in memory, for tests, examples and benchmarks. It implements the whole contract of CloudClient.
///
/// The bytes of an object are immutable and shared. putObject() and uploadPart() copy the bytes once; copyPart() and
/// completeMultipartUpload() copy none. A read in progress continues with the bytes that it started with, even if the
/// object is replaced or deleted. All bytes of one putObject() or uploadPart() stay in memory while any object, upload
/// or reader uses some of them.
///
/// Every stored object and part gets a new tag, even if its bytes are the same as before, so copyPart() always detects
/// that the object has changed. Ranges are read from the version that getObjectParts() returned, or that this client
/// has written since; see VersionPins. If somebody else has changed the object, the read or the completion of a patch
/// fails. getObjectParts() returns the parts of the completed upload, numbered from 0. An object stored by putObject()
/// is one part. checkObjectName() and checkKey() decide which names and keys are valid.
///
/// Threads: any thread may call any operation at any time. No lock is held while a content stream or the clock is used.
class MemoryClient : public cloudprovider::CloudClient,
                     public PinnedVersions,
                     public UploadInventory,
                     public WriteConditions
{
public:
    using Clock = std::function<boost::posix_time::ptime()>;

    static constexpr std::size_t defaultPageSize = 1000; // like S3

    /// Create an empty store.
    ///
    /// @param clock  returns the modification time of new objects, UTC; empty: the system's clock
    explicit MemoryClient(Clock clock = {});
    ~MemoryClient() override;

    /// Make another client of the same store, as another process would have of a durable one.
    std::shared_ptr<MemoryClient> openAnother() const;

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

    std::optional<PinnedVersion> pinnedVersion(const std::string& key) override;

    std::vector<PendingUpload> pendingUploads() override;

    std::unique_ptr<Condition> requireVersion(const std::string& key, const std::string& tag) override;
    bool isAtomic() const noexcept override { return true; }

    // Direct access for tests, which bypasses all decorators, conditions and pins: it acts as another client.

    /// Store an object, replacing an existing one. @throws InvalidLocationException for an invalid key
    void put(const std::string& key, std::string_view content);

    /// Return the object's bytes; nullopt if it does not exist.
    std::optional<std::string> get(const std::string& key) const;

    /// Remove an object. @return whether it existed
    bool remove(const std::string& key);

    /// Return all keys in ascending byte order.
    std::vector<std::string> keys() const;

    /// Return the open uploads, in the order in which they were opened.
    std::vector<OpenUpload> openUploads() const;

    /// Set the maximum number of entries on a page of a listing. 0 means 1. Affects only later calls.
    void setPageSize(std::size_t entries) noexcept;

private:
    MemoryClient(Clock clock, std::shared_ptr<MemoryStore> store);

    const Clock m_clock;
    const std::shared_ptr<MemoryStore> m_store;
    VersionPins m_pins;
    RequiredVersions m_required;
    std::atomic<std::size_t> m_pageSize = defaultPageSize;
};

} // namespace storage::clients
