#pragma once

#include <storage/cloudprovider/CloudClient.hpp>
#include <storage/cloudprovider/Export.hpp>

#include <foundation/storage/provider/IProvider.hpp>

#include <cstdint>
#include <memory>

namespace storage::cloudprovider
{

/// How folders exist in the store.
enum class FolderPolicy : std::uint32_t
{
    MarkerObjects = 0, ///< a folder has an empty object under its key; it can be created, be empty and carry a time
    KeyPrefixes = 1,   ///< a folder is what the keys below it imply; it cannot be created and is never empty. Any
                       ///< other value means the same
};

/// A flat object store as a tree of files and folders.
///
/// Operations are those of the framework's IProvider; hosts call its public ones. What is not named below keeps the
/// framework's default. Every failure is a framework Exception that names the resolved IRI. Any thread may call any
/// operation at any time; nothing here locks, and checks are not atomic with what follows them. A failed operation
/// leaves the store as the client left it: nothing is rolled back.
///
/// - A file is one object. It can be created where no parent folder exists: the parent is implied from then on.
/// - Files are read and written through streams (openStream, openReadOnlyStream); see OpenFileManager.
/// - Removing a file that is missing is no failure; removing or moving one that is open is (InUse). Open files go by
///   their IRI: a stream under another spelling of the same key is not seen.
/// - Moving and copying read and write the contents through streams. A failed copy may leave a partial destination, but
///   never removes its source. Moving or copying a file onto itself changes nothing.
/// - A move refuses a destination that is a folder (AlreadyExists), one that is a file under ReplacementPolicy::Fail
///   (AlreadyExists), one that is open (InUse), and policies that it does not know (Unsupported). A copy refuses an
///   existing file under the policies 0 and 4, and a folder if the provider was built to check; onto a file that is
///   open it writes into what the streams there share, and the last of them to close stores it.
/// - Recursive removal stops at the first failure and keeps what it had removed.
/// - Folders cannot be moved; times and permissions cannot be set (Unsupported).
/// - Listings fetch a page at a time while the caller advances; the first page is fetched by the call itself.
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

/// Make a provider over a store. Makes no call to the store and checks nothing.
///
/// @param client             shared with every iterator, open file and upload of the provider
/// @param policy             how folders exist
/// @param checkFolderOnCopy  whether copying refuses a destination that is an existing folder; costs a listing a copy
CLOUDPROVIDER_EXPORT std::shared_ptr<CloudProvider> buildCloudProvider(
    std::shared_ptr<CloudClient> client, FolderPolicy policy, bool checkFolderOnCopy);

} // namespace storage::cloudprovider
