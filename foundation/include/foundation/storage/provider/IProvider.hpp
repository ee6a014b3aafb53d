#pragma once

#include <foundation/Export.hpp>
#include <foundation/storage/provider/ByteStream.hpp>
#include <foundation/storage/provider/ByteStreamOpenOptions.hpp>
#include <foundation/storage/provider/Exception.hpp>
#include <foundation/storage/provider/ExtendedAttributes.hpp>
#include <foundation/storage/provider/FileAttributes.hpp>
#include <foundation/storage/provider/FolderAttributes.hpp>
#include <foundation/storage/provider/IFolderEntryIterator.hpp>
#include <foundation/storage/provider/ProviderStorageInfo.hpp>
#include <foundation/storage/provider/ReplacementPolicy.hpp>
#include <foundation/storage/provider/StorageIRI.hpp>

#include <boost/date_time/posix_time/posix_time_types.hpp>

#include <cstdint>
#include <functional>
#include <string>

namespace foundation::storage::provider
{

/// Whether names that differ only in case name the same file.
enum class FilenameSensitivity : std::uint32_t
{
    CaseSensitive = 0,
    CaseInsensitive = 1,
};

/// A strict order of locations. Locations that a provider treats as the same are equivalent.
using PathComparator = std::function<bool(const StorageIRI&, const StorageIRI&)>;

/// The files and folders of one store, named by IRIs.
///
/// A host calls the public operations; a provider overrides the virtual function of the same name with the prefix "do".
/// Any thread may call any operation at any time. Every failure is an Exception with the IRI concerned. The provider
/// documents the state that a failed operation leaves.
///
/// An operation that is not overridden has the default that is described with it. Without such a description, the
/// default throws ErrorCode::Unsupported. Defaults call other operations of the provider, one after the other: no
/// default is atomic unless it says so.
class FOUNDATION_EXPORT IProvider
{
public:
    virtual ~IProvider();

    IProvider(const IProvider&) = delete;
    IProvider& operator=(const IProvider&) = delete;

    /// Create an empty file. ErrorCode::AlreadyExists if it exists.
    void createFile(const StorageIRI& iri) const { doCreateFile(iri); }

    /// Create a folder in an existing folder. ErrorCode::AlreadyExists if there is a file or folder of that name.
    void createFolder(const StorageIRI& iri) const { doCreateFolder(iri); }

    /// Create a folder and every missing folder above it. Existing folders are not an error.
    ///
    /// Default: folderExists from the innermost folder outwards, then createFolder from the outermost missing folder
    /// inwards. A folder that another thread or process creates meanwhile is not an error. After a failure the folders
    /// that were created remain.
    void createFolderRecursive(const StorageIRI& iri) const { doCreateFolderRecursive(iri); }

    /// Tell whether a file exists. A missing file is not an error.
    bool fileExists(const StorageIRI& iri) const { return doFileExists(iri); }

    /// Tell whether a folder exists. A missing folder is not an error.
    bool folderExists(const StorageIRI& iri) const { return doFolderExists(iri); }

    /// Remove a file.
    void removeFile(const StorageIRI& iri) const { doRemoveFile(iri); }

    /// Move a file. `policy` says what happens to an existing file at `newIri`.
    void moveFile(const StorageIRI& oldIri, const StorageIRI& newIri, const ReplacementPolicy& policy) const
    {
        doMoveFile(oldIri, newIri, policy);
    }

    /// Remove an empty folder. ErrorCode::FolderNotEmpty if it is not.
    void removeFolder(const StorageIRI& iri) const { doRemoveFolder(iri); }

    /// Remove a folder and everything in it.
    void removeFolderRecursively(const StorageIRI& iri) const { doRemoveFolderRecursively(iri); }

    /// Move a folder with everything in it.
    void moveFolder(const StorageIRI& oldIri, const StorageIRI& newIri, const ReplacementPolicy& policy) const
    {
        doMoveFolder(oldIri, newIri, policy);
    }

    /// Get the attributes of a file. ErrorCode::NotFound if there is none.
    FileAttributes getFileAttributes(const StorageIRI& iri) const { return doGetFileAttributes(iri); }

    /// Get the attributes of a folder. ErrorCode::NotFound if there is none.
    FolderAttributes getFolderAttributes(const StorageIRI& iri) const { return doGetFolderAttributes(iri); }

    /// Open a file for writing, and also for reading if the options allow it. The caller owns the stream and closes it.
    ByteStreamPtr openStream(const StorageIRI& iri, const ByteStreamOpenOptions& options) const
    {
        return doOpenStream(iri, options);
    }

    /// Open an existing file for reading. The caller owns the stream.
    ByteStreamPtr openReadOnlyStream(const StorageIRI& iri) const { return doOpenReadOnlyStream(iri); }

    /// Open a stream that replaces the contents of a file when it is closed. A stream that is destroyed without being
    /// closed leaves the file unchanged.
    ///
    /// Default: openTransactionalStreamAtScratchLocation in the system's temporary folder.
    ByteStreamPtr openTransactionalStream(const StorageIRI& iri) const { return doOpenTransactionalStream(iri); }

    /// Like openTransactionalStream, but keep the new contents in `scratchFolder` until the stream is closed.
    ///
    /// Default: `scratchFolder` is an existing local folder, as a "file" IRI ("file:///var/tmp"), or the empty IRI for
    /// the system's temporary folder. Any other IRI throws ErrorCode::InvalidLocation. The stream starts empty, and
    /// reads, writes and seeks in a local temporary file. Closing it copies this file to a stream from openStream with
    /// ByteStreamTruncate::Discard, and stores that stream (storeOrAbandon). Whether the target changes in one step
    /// depends on that stream. If the copy fails, close() throws, and the target keeps its contents if that stream can
    /// be abandoned. If the target is open elsewhere and not empty then, close() throws ErrorCode::InUse and writes
    /// nothing. The provider must outlive the stream.
    ByteStreamPtr openTransactionalStreamAtScratchLocation(const StorageIRI& iri, const StorageIRI& scratchFolder) const
    {
        return doOpenTransactionalStreamAtScratchLocation(iri, scratchFolder);
    }

    // Listings. Names are relative to the listed folder. The provider defines the order.
    //
    // Wildcards: lists only entries whose last name matches the whole `pattern`. Case matters. "*" matches any sequence
    // of characters, "?" any one character, "[a-z0]" one character of a set, "[!a-z]" or "[^a-z]" one character that is
    // not in the set. A "]" at the start of a set is part of the set; a "[" without a closing "]" matches itself. The
    // time for one name is at most proportional to the length of the pattern times the length of the name. Default:
    // the listing without a pattern, filtered.
    //
    // NamesOnly: only name() and isFolder() of the entries are valid, so the provider need not fetch the attributes.
    // Default: the listing with attributes.

    FolderEntryIteratorPtr listAll(const StorageIRI& iri) const { return doListAll(iri); }
    FolderEntryIteratorPtr listAllWildcards(const StorageIRI& iri, const std::u16string& pattern) const
    {
        return doListAllWildcards(iri, pattern);
    }
    FolderEntryIteratorPtr listFiles(const StorageIRI& iri) const { return doListFiles(iri); }
    FolderEntryIteratorPtr listFilesWildcards(const StorageIRI& iri, const std::u16string& pattern) const
    {
        return doListFilesWildcards(iri, pattern);
    }
    FolderEntryIteratorPtr listFolders(const StorageIRI& iri) const { return doListFolders(iri); }
    FolderEntryIteratorPtr listFoldersWildcards(const StorageIRI& iri, const std::u16string& pattern) const
    {
        return doListFoldersWildcards(iri, pattern);
    }
    FolderEntryIteratorPtr listAllNamesOnly(const StorageIRI& iri) const { return doListAllNamesOnly(iri); }
    FolderEntryIteratorPtr listAllNamesOnlyWildcards(const StorageIRI& iri, const std::u16string& pattern) const
    {
        return doListAllNamesOnlyWildcards(iri, pattern);
    }
    FolderEntryIteratorPtr listFoldersNamesOnly(const StorageIRI& iri) const { return doListFoldersNamesOnly(iri); }
    FolderEntryIteratorPtr listFoldersNamesOnlyWildcards(const StorageIRI& iri, const std::u16string& pattern) const
    {
        return doListFoldersNamesOnlyWildcards(iri, pattern);
    }
    FolderEntryIteratorPtr listFilesNamesOnly(const StorageIRI& iri) const { return doListFilesNamesOnly(iri); }
    FolderEntryIteratorPtr listFilesNamesOnlyWildcards(const StorageIRI& iri, const std::u16string& pattern) const
    {
        return doListFilesNamesOnlyWildcards(iri, pattern);
    }
    FolderEntryIteratorPtr listAllRecursive(const StorageIRI& iri) const { return doListAllRecursive(iri); }
    FolderEntryIteratorPtr listAllRecursiveWildcards(const StorageIRI& iri, const std::u16string& pattern) const
    {
        return doListAllRecursiveWildcards(iri, pattern);
    }
    FolderEntryIteratorPtr listAllRecursiveNamesOnly(const StorageIRI& iri) const
    {
        return doListAllRecursiveNamesOnly(iri);
    }
    FolderEntryIteratorPtr listAllRecursiveNamesOnlyWildcards(
        const StorageIRI& iri, const std::u16string& pattern) const
    {
        return doListAllRecursiveNamesOnlyWildcards(iri, pattern);
    }

    /// Copy a file within this provider. `policy` says what happens to an existing file at `destination`.
    void copyFile(const StorageIRI& source, const StorageIRI& destination, const ReplacementPolicy& policy) const
    {
        doCopyFile(source, destination, policy);
    }

    /// Copy a file so that `destination` does not change before all of `source` has been read.
    ///
    /// Default: copy to a stream from openTransactionalStream. ErrorCode::AlreadyExists if the policy is Fail and
    /// `destination` is a file, ErrorCode::Unsupported if supportsReplacementPolicy is false for the policy.
    void copyFileAtomic(const StorageIRI& source, const StorageIRI& destination, const ReplacementPolicy& policy) const
    {
        doCopyFileAtomic(source, destination, policy);
    }

    /// Set the time of the last modification.
    ///
    /// @param lastModified  UTC
    void setLastModified(const StorageIRI& iri, const boost::posix_time::ptime& lastModified) const
    {
        doSetLastModified(iri, lastModified);
    }

    /// Set whether a file or folder may be written to.
    void setWritable(const StorageIRI& iri, const bool writable) const { doSetWritable(iri, writable); }

    // Change notification. A provider that overrides these defines how a host receives the events.
    void publishFolderEventsFor(const StorageIRI& iri) const { doPublishFolderEventsFor(iri); }
    void publishFileEventsFor(const StorageIRI& iri) const { doPublishFileEventsFor(iri); }
    void stopPublishingEventsFor(const StorageIRI& iri) const { doStopPublishingEventsFor(iri); }
    void startChangePollingMechanism(const StorageIRI& iri) const { doStartChangePollingMechanism(iri); }
    void stopChangePollingMechanism(const StorageIRI& iri) const { doStopChangePollingMechanism(iri); }

    /// Tell whether moves and copies support `policy`. Default: true for the policies that ReplacementPolicy names.
    bool supportsReplacementPolicy(const ReplacementPolicy& policy) const
    {
        return doSupportsReplacementPolicy(policy);
    }

    /// Get the order of this provider's locations. Default: the order of StorageIRI.
    PathComparator getPathComparator() const { return doGetPathComparator(); }

    /// Get the canonical spelling of a location. Default: StorageIRI::getResolvedIRI.
    StorageIRI getCanonicalLocation(const StorageIRI& iri) const { return doGetCanonicalLocation(iri); }

    /// Tell whether names are case-sensitive. Default: FilenameSensitivity::CaseSensitive.
    FilenameSensitivity getFilenameSensitivity() const { return doGetFilenameSensitivity(); }

    /// Release the provider's resources before it is destroyed. Default: nothing.
    void shutdown() const { doShutdown(); }

    /// Tell whether there is a file or a folder. Default: existsExtended.
    bool exists(const StorageIRI& iri) const { return doExists(iri); }

    /// Tell whether there is a file or a folder; a file, if there are both. Default: fileExists, then folderExists.
    ResourceKind existsExtended(const StorageIRI& iri) const { return doExistsExtended(iri); }

    /// Get the attributes of a file or a folder. ErrorCode::NotFound if there is neither.
    ///
    /// Default: existsExtended, then getFileAttributes or getFolderAttributes.
    ExtendedAttributes getExtendedAttributes(const StorageIRI& iri) const { return doGetExtendedAttributes(iri); }

    /// Get the storage space of the store that contains `iri`.
    ProviderStorageInfo getProviderStorageInfo(const StorageIRI& iri) const { return doGetProviderStorageInfo(iri); }

    /// Truncate an existing file to `size` bytes, or extend it to `size` bytes with zeros.
    ///
    /// Default: openStream, then storeOrAbandon. Truncates only to 0 bytes, and extends by appending zeros at the
    /// stream's own end. Throws ErrorCode::Unsupported for any other size, because a failure while writing the kept
    /// bytes again would lose them, and ErrorCode::InUse for the size 0 if the file is open elsewhere and not empty. If
    /// the file is open elsewhere and grows, its streams share the zeros, and the last of them to close stores them.
    void truncateToSize(const StorageIRI& iri, std::uint64_t size) const { doTruncateToSize(iri, size); }

    /// Get the number of bytes that the provider's local caches use for `iri`.
    std::uint64_t getProviderCacheUsage(const StorageIRI& iri) const { return doGetProviderCacheUsage(iri); }

protected:
    IProvider() = default;

    virtual void doCreateFile(const StorageIRI& iri) const;
    virtual void doCreateFolder(const StorageIRI& iri) const;
    virtual void doCreateFolderRecursive(const StorageIRI& iri) const;
    virtual bool doFileExists(const StorageIRI& iri) const;
    virtual bool doFolderExists(const StorageIRI& iri) const;
    virtual void doRemoveFile(const StorageIRI& iri) const;
    virtual void doMoveFile(const StorageIRI& oldIri, const StorageIRI& newIri, const ReplacementPolicy& policy) const;
    virtual void doRemoveFolder(const StorageIRI& iri) const;
    virtual void doRemoveFolderRecursively(const StorageIRI& iri) const;
    virtual void doMoveFolder(
        const StorageIRI& oldIri, const StorageIRI& newIri, const ReplacementPolicy& policy) const;
    virtual FileAttributes doGetFileAttributes(const StorageIRI& iri) const;
    virtual FolderAttributes doGetFolderAttributes(const StorageIRI& iri) const;
    virtual ByteStreamPtr doOpenStream(const StorageIRI& iri, const ByteStreamOpenOptions& options) const;
    virtual ByteStreamPtr doOpenReadOnlyStream(const StorageIRI& iri) const;
    virtual ByteStreamPtr doOpenTransactionalStream(const StorageIRI& iri) const;
    virtual ByteStreamPtr doOpenTransactionalStreamAtScratchLocation(
        const StorageIRI& iri, const StorageIRI& scratchFolder) const;
    virtual FolderEntryIteratorPtr doListAll(const StorageIRI& iri) const;
    virtual FolderEntryIteratorPtr doListAllWildcards(const StorageIRI& iri, const std::u16string& pattern) const;
    virtual FolderEntryIteratorPtr doListFiles(const StorageIRI& iri) const;
    virtual FolderEntryIteratorPtr doListFilesWildcards(const StorageIRI& iri, const std::u16string& pattern) const;
    virtual FolderEntryIteratorPtr doListFolders(const StorageIRI& iri) const;
    virtual FolderEntryIteratorPtr doListFoldersWildcards(const StorageIRI& iri, const std::u16string& pattern) const;
    virtual FolderEntryIteratorPtr doListAllNamesOnly(const StorageIRI& iri) const;
    virtual FolderEntryIteratorPtr doListAllNamesOnlyWildcards(
        const StorageIRI& iri, const std::u16string& pattern) const;
    virtual FolderEntryIteratorPtr doListFoldersNamesOnly(const StorageIRI& iri) const;
    virtual FolderEntryIteratorPtr doListFoldersNamesOnlyWildcards(
        const StorageIRI& iri, const std::u16string& pattern) const;
    virtual FolderEntryIteratorPtr doListFilesNamesOnly(const StorageIRI& iri) const;
    virtual FolderEntryIteratorPtr doListFilesNamesOnlyWildcards(
        const StorageIRI& iri, const std::u16string& pattern) const;
    virtual FolderEntryIteratorPtr doListAllRecursive(const StorageIRI& iri) const;
    virtual FolderEntryIteratorPtr doListAllRecursiveWildcards(
        const StorageIRI& iri, const std::u16string& pattern) const;
    virtual FolderEntryIteratorPtr doListAllRecursiveNamesOnly(const StorageIRI& iri) const;
    virtual FolderEntryIteratorPtr doListAllRecursiveNamesOnlyWildcards(
        const StorageIRI& iri, const std::u16string& pattern) const;
    virtual void doCopyFile(
        const StorageIRI& source, const StorageIRI& destination, const ReplacementPolicy& policy) const;
    virtual void doCopyFileAtomic(
        const StorageIRI& source, const StorageIRI& destination, const ReplacementPolicy& policy) const;
    virtual void doSetLastModified(const StorageIRI& iri, const boost::posix_time::ptime& lastModified) const;
    virtual void doSetWritable(const StorageIRI& iri, const bool writable) const;
    virtual void doPublishFolderEventsFor(const StorageIRI& iri) const;
    virtual void doPublishFileEventsFor(const StorageIRI& iri) const;
    virtual void doStopPublishingEventsFor(const StorageIRI& iri) const;
    virtual void doStartChangePollingMechanism(const StorageIRI& iri) const;
    virtual void doStopChangePollingMechanism(const StorageIRI& iri) const;
    virtual bool doSupportsReplacementPolicy(const ReplacementPolicy& policy) const;
    virtual PathComparator doGetPathComparator() const;
    virtual StorageIRI doGetCanonicalLocation(const StorageIRI& iri) const;
    virtual FilenameSensitivity doGetFilenameSensitivity() const;
    virtual void doShutdown() const;
    virtual bool doExists(const StorageIRI& iri) const;
    virtual ResourceKind doExistsExtended(const StorageIRI& iri) const;
    virtual ExtendedAttributes doGetExtendedAttributes(const StorageIRI& iri) const;
    virtual ProviderStorageInfo doGetProviderStorageInfo(const StorageIRI& iri) const;
    virtual void doTruncateToSize(const StorageIRI& iri, std::uint64_t size) const;
    virtual std::uint64_t doGetProviderCacheUsage(const StorageIRI& iri) const;
};

} // namespace foundation::storage::provider
