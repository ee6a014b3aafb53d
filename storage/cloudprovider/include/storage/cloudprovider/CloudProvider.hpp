#pragma once

#include <storage/cloudprovider/CloudClient.hpp>
#include <storage/cloudprovider/Export.hpp>

#include <foundation/storage/provider/IProvider.hpp>

#include <cstdint>
#include <memory>

namespace storage::cloudprovider
{

/// How the store represents folders.
enum class FolderPolicy : std::uint32_t
{
    MarkerObjects = 0, ///< a folder has an empty object under its key: it can be created, can be empty and has a time
    KeyPrefixes = 1,   ///< a folder exists while keys below it exist: it cannot be created and is never empty. Any
                       ///< other value means the same.
};

/// A flat object store as a tree of files and folders.
///
/// Implements the framework's IProvider; hosts call the public operations there. Operations that are not overridden
/// here keep the framework's default. Every failure is a framework Exception that names the resolved IRI. Any thread
/// may call any operation at any time. The provider does not lock, so a check is not atomic with the operation that
/// follows it. Nothing is rolled back: after a failure the store is as the client left it.
///
/// - A file is one object. It can be created without a parent folder; its key then implies the parent.
/// - Files are read and written through streams (openStream, openReadOnlyStream); see OpenFileManager. A write that
///   leaves a gap of more than 10,000 parts after the end of the file fails (Unsupported).
/// - No file has a key that ends in "/": such a file does not exist, has no attributes (NotFound), and any other
///   operation on it fails (InvalidLocation).
/// - Removing a missing file is not an error. Removing or moving an open file fails (InUse). Open files are identified
///   by their IRI: a stream opened under another spelling of the same key is not detected.
/// - Moving and copying read and write the contents through streams. If they fail, the source remains, and the
///   destination is the old object or the complete copy. Moving or copying a file onto itself changes nothing.
/// - A move fails if the destination is a folder (AlreadyExists), is a file and the policy is ReplacementPolicy::Fail
///   (AlreadyExists), or is open (InUse), and if the policy is unknown (Unsupported). If a stream is opened on the
///   destination during the copy, and is still open after it or could not store it, the move keeps the source and fails
///   (InUse).
/// - A copy fails if the destination is a file and the policy is 0 or 4, or if it is a folder and the provider was
///   built to check for that (AlreadyExists). If the destination is open, the copy writes into the contents that its
///   streams share: bytes beyond the end of the source stay, and the last of the streams to close stores the result. A
///   copy whose destination is opened during the copy does the same. A copy that fails abandons its stream.
/// - A stream that is abandoned stores nothing, unless another stream is open on the file, or one that can write was
///   open at the same time: they share the contents and may have changed them, so the last of them to close stores all,
///   also what the abandoned stream has written. Abandoning a read-only stream does nothing.
/// - Recursive removal stops at the first failure. Entries removed before that stay removed.
/// - Folders cannot be moved; times and permissions cannot be set (Unsupported).
/// - A listing fetches pages as the caller advances, each time up to the next entry. The call that returns it fetches
///   the first entry. Keys with an empty segment or a segment "." are left out, such as "a//x", "/x" and "./x":
///   their IRI names something else. A folder that has no other keys exists, is listed as empty, and is removed only
///   recursively. Keys with a segment that ends in a dot are listed, although their IRI names the key without that dot:
///   with such an entry, a host reads or removes another object. See utils::canonicalize().
class CLOUDPROVIDER_EXPORT CloudProvider : public foundation::storage::provider::IProvider
{
public:
    /// Use buildCloudProvider().
    CloudProvider(CloudClientSharedPtr client, FolderPolicy policy, bool checkFolderOnCopy);
    ~CloudProvider() override;

protected:
    using StorageIRI = foundation::storage::provider::StorageIRI;
    using ReplacementPolicy = foundation::storage::provider::ReplacementPolicy;
    using ByteStreamPtr = foundation::storage::provider::ByteStreamPtr;
    using FolderEntryIteratorPtr = foundation::storage::provider::FolderEntryIteratorPtr;

    void doCreateFile(const StorageIRI& iri) const override;
    void doCreateFolder(const StorageIRI& iri) const override;
    bool doFileExists(const StorageIRI& iri) const override;
    bool doFolderExists(const StorageIRI& iri) const override;
    void doRemoveFile(const StorageIRI& iri) const override;
    void doMoveFile(const StorageIRI& oldIri, const StorageIRI& newIri, const ReplacementPolicy& policy) const override;
    void doRemoveFolder(const StorageIRI& iri) const override;
    void doRemoveFolderRecursively(const StorageIRI& iri) const override;
    void doMoveFolder(
        const StorageIRI& oldIri, const StorageIRI& newIri, const ReplacementPolicy& policy) const override;
    foundation::storage::provider::FileAttributes doGetFileAttributes(const StorageIRI& iri) const override;
    foundation::storage::provider::FolderAttributes doGetFolderAttributes(const StorageIRI& iri) const override;
    ByteStreamPtr doOpenStream(
        const StorageIRI& iri, const foundation::storage::provider::ByteStreamOpenOptions& options) const override;
    ByteStreamPtr doOpenReadOnlyStream(const StorageIRI& iri) const override;
    FolderEntryIteratorPtr doListAll(const StorageIRI& iri) const override;
    FolderEntryIteratorPtr doListFiles(const StorageIRI& iri) const override;
    FolderEntryIteratorPtr doListFolders(const StorageIRI& iri) const override;
    FolderEntryIteratorPtr doListAllRecursive(const StorageIRI& iri) const override;
    void doCopyFile(
        const StorageIRI& source, const StorageIRI& destination, const ReplacementPolicy& policy) const override;
    void doSetLastModified(const StorageIRI& iri, const boost::posix_time::ptime& time) const override;
    void doSetWritable(const StorageIRI& iri, const bool writable) const override;
    bool doSupportsReplacementPolicy(const ReplacementPolicy& policy) const override;

private:
    // Constant after construction.
    const CloudClientSharedPtr m_client;
    const FolderPolicy m_folderPolicy;
    const bool m_checkFolderOnCopy;
};

/// Build a provider for a store. Does not call the store and does not check the arguments.
///
/// @param client             shared with all iterators, open files and uploads of the provider
/// @param policy             how the store represents folders
/// @param checkFolderOnCopy  whether copying onto an existing folder fails; costs one listing request per copy
CLOUDPROVIDER_EXPORT std::shared_ptr<CloudProvider> buildCloudProvider(
    std::shared_ptr<CloudClient> client, FolderPolicy policy, bool checkFolderOnCopy);

} // namespace storage::cloudprovider
