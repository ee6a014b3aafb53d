#pragma once

#include <storage/clients/common/CallCounters.hpp>
#include <storage/clients/common/FaultPlan.hpp>
#include <storage/clients/common/UploadInventory.hpp>

#include <storage/cloudprovider/CloudClient.hpp>

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <limits>
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
    std::string tag;                ///< as createMultipartUpload() was given it
    std::vector<std::size_t> parts; ///< indexes held, ascending
    boost::posix_time::ptime created;
};

/// An object store in memory, for tests, examples and measurements: the whole contract of CloudClient, and controls
/// that let it misbehave as stores do.
///
/// Contents are immutable and shared: putting and uploading copies bytes once, copying parts and completing uploads
/// never does, and a reader goes on reading what it began to read. Bytes stay in memory while any object, upload or
/// reader uses a part of what they came with.
///
/// Every part and object gets a tag of its own, also when its bytes are not new, so a stale copy is always noticed.
/// Parts are given back as they were completed, numbered from 0; an object put whole is one part. Names and keys are
/// judged by checkObjectName() and checkKey().
///
/// Threads: everything, the controls included, may be called at any time from any thread. No lock is held while content
/// streams, hooks or clocks of others run.
class MemoryClient : public cloudprovider::CloudClient, public StoreCounters, public UploadInventory
{
public:
    using Clock = std::function<boost::posix_time::ptime()>;

    static constexpr std::size_t defaultPageSize = 1000; // as S3 pages its listings

    /// Begin with an empty store.
    ///
    /// @param clock  tells the time of change of what is stored from now on, UTC; empty: the system's clock
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

    CallSnapshot callSnapshot() const override;
    std::vector<PendingUpload> pendingUploads() override;

    // Behind the caller's back: neither counted nor subject to faults, hooks and delays.

    /// Store an object, replacing what stood there. @throws InvalidLocationException for a key that is refused
    void put(const std::string& key, std::string_view content);

    /// The object's bytes; nothing when there is no such object.
    std::optional<std::string> get(const std::string& key) const;

    /// Remove an object. @return whether there was one
    bool remove(const std::string& key);

    /// All keys in ascending byte order.
    std::vector<std::string> keys() const;

    /// The uploads that are open now, in the order in which they were opened.
    std::vector<OpenUpload> openUploads() const;

    // Misbehaviour. Each is independent of the others and counts for calls that arrive later.

    /// What fails, what waits, and who watches. Valid as long as the client.
    FaultPlan& faults() noexcept { return m_faults; }

    /// Put at most so many entries into one page, at least 1.
    void setPageSize(std::size_t entries) noexcept;

    /// Send so many empty pages before each page that a listing asks for; 0, as at first: none.
    void setEmptyPages(unsigned pages) noexcept;

    /// Let getObjectRange() stop after so many bytes without a word, as a broken connection behind a careless client
    /// would; without an argument, as at first, every byte is delivered.
    void setDownloadLimit(std::uint64_t bytes = std::numeric_limits<std::uint64_t>::max()) noexcept;

private:
    template <typename Body>
    auto perform(Operation operation, const std::string& key, Body&& body);

    const Clock m_clock;
    const std::unique_ptr<MemoryStore> m_store;
    CallCounters m_counters;
    FaultPlan m_faults;
    std::atomic<std::size_t> m_pageSize = defaultPageSize;
    std::atomic<unsigned> m_emptyPages = 0;
    std::atomic<std::uint64_t> m_downloadLimit = std::numeric_limits<std::uint64_t>::max();
};

} // namespace storage::clients
