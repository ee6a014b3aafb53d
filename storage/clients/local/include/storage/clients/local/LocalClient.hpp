#pragma once

#include <storage/clients/common/CallCounters.hpp>
#include <storage/clients/common/Operation.hpp>
#include <storage/clients/common/UploadInventory.hpp>
#include <storage/cloudprovider/CloudClient.hpp>

#include <cstdint>
#include <filesystem>
#include <iosfwd>
#include <memory>
#include <optional>
#include <string>
#include <vector>

namespace storage::clients
{

namespace local
{
class ContentFiles;
class Database;
class StagedContent;
} // namespace local

/// A durable store in one directory of this machine: an index in SQLite, with the contents that are not small in files
/// beside it.
///
/// Durability: an operation that returns is on the disk and outlives a crash or a loss of power. One that is cut short
/// by either has happened or has not; what it leaves behind is removed when a client next opens the store. What was
/// sent for an upload outlives a crash at once, and a loss of power only when the upload is completed.
///
/// Sharing: any number of threads, clients and processes on this machine may use one directory at the same time. Reads
/// never wait; writers take turns at the index, but not while contents are moved. The directory must be on a disk of
/// this machine: network file systems do not give the locks and shared memory that SQLite needs. A child process must
/// not use a client that its parent made before fork().
///
/// Parts: an object is kept as the parts it was completed from. copyPart() of a part as getObjectParts() gave it shares
/// its bytes, and completion moves none, so that both cost the same for any size. Other ranges are copied by the
/// kernel. A tag belongs to bytes: a part that was taken over unchanged from one version of an object into the next
/// keeps its own.
///
/// Listing: pages of at most 1,000 entries. A group's entry carries the time of the object under exactly its key, when
/// there is one. A group costs one step, however many keys lie below it.
///
/// Reading: a range that touches up to 16 parts is read from one version of the object, whatever happens to it
/// meanwhile; a longer one fails when the object is replaced under it.
///
/// Uploads outlive the process that began them, until they are completed or aborted.
///
/// Failures: a full disk, damage and everything else that is not the caller's doing are UnknownErrorException; a file
/// of another size than it was stored with is damage, and nothing is served in its place. Refused access is
/// PermissionDeniedException. Keys that checkKey() refuses cannot be stored: InvalidLocationException.
class LocalClient final : public cloudprovider::CloudClient, public StoreCounters, public UploadInventory
{
public:
    /// Contents up to this size live in the index, larger ones in files of their own.
    ///
    /// A file costs two more syncs and a rename: on ext4 an object of 4 KiB takes 0.2 ms in the index and 0.7 ms in a
    /// file, one of 64 KiB 0.5 ms and 3 ms. The index wins up to 1 MiB and more, but it writes each byte twice, while
    /// all other writers wait, and it never shrinks; at 64 KiB most of the gain is had.
    static constexpr std::uint64_t defaultMaxInlineSize = 64 * 1024;

    /// Open the store in a directory, which is made, with those above it, when it is missing. Only this user gets
    /// access to what is made. An empty directory becomes an empty store.
    ///
    /// @throws InvalidLocationException when there is something else there: a file, or a directory with other content
    /// @throws PermissionDeniedException when it cannot be made, read or written
    /// @throws UnknownErrorException when the index is damaged, or written by a later version of this program
    /// A directory that is refused is left as it is.
    /// @param maxInlineSize  bytes; concerns what this client stores, and may differ from one client to the next
    explicit LocalClient(const std::filesystem::path& directory, std::uint64_t maxInlineSize = defaultMaxInlineSize);

    /// No call may be in progress.
    ~LocalClient() override;

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

private:
    template <typename Body>
    auto perform(Operation operation, const std::string& key, Body body);

    local::StagedContent stage(std::uint64_t size);

    std::string storePart(Operation operation, const std::string& key, const std::string& uploadId,
        const cloudprovider::PartInfo& part, local::StagedContent& content);

    // The two ways of copyPart(): without bytes, or nothing when the range is not a stored part, and with them.
    std::optional<std::string> sharePart(
        const std::string& key, const std::string& uploadId, const cloudprovider::PartInfo& part);
    std::string copyRange(const std::string& key, const std::string& uploadId, const cloudprovider::PartInfo& part);

    const std::filesystem::path m_directory; // absolute
    const std::uint64_t m_maxInlineSize;
    CallCounters m_counters;
    std::unique_ptr<local::Database> m_index;     // constant after construction
    std::unique_ptr<local::ContentFiles> m_files; // constant after construction
};

} // namespace storage::clients
