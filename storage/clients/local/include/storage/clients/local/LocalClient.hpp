#pragma once

#include <storage/clients/common/ObjectRemover.hpp>
#include <storage/clients/common/Operation.hpp>
#include <storage/clients/common/PinnedVersions.hpp>
#include <storage/clients/common/RequiredVersions.hpp>
#include <storage/clients/common/UploadInventory.hpp>
#include <storage/clients/common/VersionPins.hpp>
#include <storage/clients/common/WriteConditions.hpp>
#include <storage/cloudprovider/CloudClient.hpp>

#include <chrono>
#include <cstdint>
#include <exception>
#include <filesystem>
#include <functional>
#include <iosfwd>
#include <map>
#include <memory>
#include <optional>
#include <span>
#include <string>
#include <vector>

namespace storage::clients
{

namespace local
{
class BegunUploads;
class Connection;
class ContentFiles;
class Database;
class StagedContent;
} // namespace local

/// What may be chosen when a local store is opened.
struct LocalSettings
{
    /// Contents of at most this many bytes are stored inline in the index, larger ones in a file each. Applies to what
    /// this client stores, and may differ between clients of one store.
    ///
    /// A file needs two more syncs and a rename. On ext4 an object of 4 KiB takes 0.2 ms inline and 0.7 ms in a file,
    /// one of 64 KiB 0.5 ms and 3 ms. Inline is faster up to 1 MiB and more. But inline bytes are written twice while
    /// all other writers wait. At 64 KiB, most of the speed is gained.
    std::uint64_t maxInlineSize = 64 * 1024;

    /// Create the store if there is none.
    bool createMissing = true;

    /// How long a writer waits for its turn while another client writes: far longer than any transaction of a process
    /// that runs.
    std::chrono::milliseconds lockTimeout = std::chrono::minutes(1);

    /// Whether the process is interrupted: then a writer waits for at most a second. Called from any thread that uses
    /// the client. Must not throw. Empty: never.
    std::function<bool()> interrupted = {};
};

/// A durable store in one directory of this machine: an index in SQLite, with files beside it for large contents.
///
/// Durability: when an operation returns, its effect is on the disk and survives a crash and a loss of power. If either
/// interrupts an operation, it has taken full effect or none; files that it leaves are removed when a client next opens
/// the store. Exception: an upload and its parts survive a crash at once, but a loss of power only after completion.
///
/// Sharing: any number of threads, clients and processes of this machine may use one directory at the same time.
/// Readers never wait. Writers take turns at the index, but transfer contents in parallel. Threads of one client that
/// put inline contents meanwhile share the next turn, with one commit and one sync. If a process is stopped during its
/// turn, opening the store, reading and listing go on, and other writers fail after
/// LocalSettings::lockTimeout with a message that names the process. Readers wait, as long as writers, only while a
/// process is stopped in the instant in which it opens the store as its only user: it then prepares what all users
/// share. The directory must be on a local disk: network file systems lack the locks and the shared memory that SQLite
/// needs. A child process must not use a client that its parent created before fork().
///
/// Parts: an object keeps the parts that it was completed from. copyPart() shares the bytes of a part that is passed as
/// getObjectParts() returned it, and completeMultipartUpload() moves no bytes, so the cost of neither depends on the
/// size. copyPart() of any other range copies the bytes, in the kernel where the file system supports that. A tag
/// belongs to bytes: a part that goes unchanged from one version of an object into the next keeps its tag.
///
/// Listing: a page has at most 1,000 entries. The entry of a group has the time of the object under exactly the group's
/// key, if there is one. The cost of a group does not depend on the number of its keys.
///
/// Versions: ranges are read from the version that getObjectParts() returned, or that this client has stored since; see
/// VersionPins. If somebody else has replaced or removed the object, the read fails, and so does the completion of an
/// upload that was begun with a part's tag or that copies parts. An object that this client has not opened is read as
/// it is.
///
/// Reading: a range in at most 16 parts is read from one version of the object, even if the object is replaced or
/// removed meanwhile. A read of more parts can fail in that case.
///
/// Uploads: createMultipartUpload() does not access the disk. The store knows an upload from its first part on; then
/// any client may use it. An upload ends with the client that began it: the next client that opens the store discards
/// what clients that no longer exist have neither completed nor aborted.
///
/// Failures: a full disk, a damaged store and other failures that the caller did not cause throw UnknownErrorException.
/// Denied access throws PermissionDeniedException. Storing under a key that checkKey() refuses throws
/// InvalidLocationException.
///
/// Full disk: a store can be opened, read, listed and emptied on a disk without a free byte: it keeps the half MiB that
/// this needs. A copy-on-write file system may need more. The index gives pages back when a quarter of it is free.
///
/// Damage: every read compares what it reads with checksums: a page of the index, a page of its write-ahead log, a
/// block of 64 KiB of a content file. Bytes that the disk has changed are never returned, also not in a range; neither
/// is a content file with a wrong size. A read of a range has to read whole blocks. A damaged log is refused as long as
/// it should be complete: from the last operation that was durable when it returned.
///
/// Upgrade: a store of version 1, which has no checksums, is upgraded when it is opened. That copies the index, which
/// takes as long and as much room as a copy of its file. A crash leaves the old index or the new one. Content files
/// from before have no checksums; only their sizes are checked. Older programs refuse an upgraded store, and must not
/// use the store while it is upgraded: opening it fails then.
class LocalClient final : public cloudprovider::CloudClient,
                          public ObjectRemover,
                          public PinnedVersions,
                          public UploadInventory,
                          public WriteConditions
{
public:
    /// Open the store in a directory. A missing directory is created with its parents, and an empty one becomes an
    /// empty store, unless the settings forbid that. Only this user gets access to what is created. If opening fails,
    /// an existing directory is left unchanged.
    ///
    /// @throws ResourceNotFoundException when there is no store and none is to be created
    /// @throws InvalidLocationException when the path is a file, or a directory with other content
    /// @throws PermissionDeniedException when the directory cannot be created, read or written
    /// @throws UnknownErrorException when the index is damaged, or has a version that this program does not support, or
    ///         has version 1 while an older program uses the store
    explicit LocalClient(const std::filesystem::path& directory, const LocalSettings& settings = {});

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

    /// Delete the objects in transactions; other writers take turns in between. A transaction is durable before the
    /// next one begins. It ends after 256 keys, or with the key that has released the 256th part. If it fails, for
    /// example because the disk has no room for it, its keys are deleted one by one, and the result has those that
    /// fail.
    ///
    /// @throws UnknownErrorException when a transaction has not begun because another process keeps the index locked
    std::map<std::string, std::exception_ptr> deleteObjects(const std::vector<std::string>& keys) override;

    std::optional<PinnedVersion> pinnedVersion(const std::string& key) override;

    std::vector<PendingUpload> pendingUploads() override;

    std::unique_ptr<Condition> requireVersion(const std::string& key, const std::string& tag) override;
    bool isAtomic() const noexcept override { return true; }

private:
    template <typename Body>
    auto perform(Operation operation, const std::string& key, Body body);

    void checkRequired(local::Connection& index, const std::string& key) const;

    // Delete the object, unless it is not the required version. Throws StoreError, like the next one.
    void deleteAlone(const std::string& key);

    // Delete the first objects in one transaction, except those that are not the required version.
    //
    // @return how many keys are done; if this throws, nothing has changed
    std::size_t deleteTogether(std::span<const std::string> keys, std::map<std::string, std::exception_ptr>& failures);

    // @throws StoreError only if the index is locked
    void deleteOneByOne(std::span<const std::string> keys, std::map<std::string, std::exception_ptr>& failures);

    local::StagedContent stage(std::uint64_t size);

    std::string storePart(const std::string& key, const std::string& uploadId, const cloudprovider::PartInfo& part,
        local::StagedContent& content, std::optional<std::int64_t> source);

    // The two ways of copyPart(). sharePart() moves no bytes; it returns nullopt when the range is not a stored part.
    std::optional<std::string> sharePart(
        const std::string& key, const std::string& uploadId, const cloudprovider::PartInfo& part);
    std::string copyRange(const std::string& key, const std::string& uploadId, const cloudprovider::PartInfo& part);

    const std::filesystem::path m_directory; // absolute
    const LocalSettings m_settings;
    const std::unique_ptr<local::BegunUploads> m_uploads;
    VersionPins m_pins;
    RequiredVersions m_required;
    std::unique_ptr<local::Database> m_index;     // constant after construction
    std::unique_ptr<local::ContentFiles> m_files; // constant after construction
};

} // namespace storage::clients
