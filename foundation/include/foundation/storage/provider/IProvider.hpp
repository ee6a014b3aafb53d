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

/// Whether two names that differ in case only name one file.
enum class FilenameSensitivity : std::uint32_t
{
    CaseSensitive = 0,
    CaseInsensitive = 1,
};

/// Orders locations strictly, the way a provider tells them apart.
using PathComparator = std::function<bool(const StorageIRI&, const StorageIRI&)>;

/// Files and folders of one place, named by IRIs.
///
/// A host calls the public operations; a provider overrides the virtual one of the same name and arguments. Any thread
/// may call any operation at any time. Every failure is an Exception that names the IRI concerned; what is left behind
/// after one is the provider's to say.
///
/// An operation that is not overridden has the framework's default. It is described with the operation; where nothing
/// is said, the operation is refused with ErrorCode::Unsupported. Defaults are composed of the provider's other
/// operations, each of which may change the place separately: no default is atomic unless it says so.
class FOUNDATION_EXPORT IProvider
{
public:
    virtual ~IProvider();

    IProvider(const IProvider&) = delete;
    IProvider& operator=(const IProvider&) = delete;

    /// Create an empty file. ErrorCode::AlreadyExists if there is one.
    void createFile(const StorageIRI& iri) const { doCreateFile(iri); }

    /// Create a folder in an existing one. ErrorCode::AlreadyExists if there is a file or folder of that name.
    void createFolder(const StorageIRI& iri) const { doCreateFolder(iri); }

    /// Create a folder and every folder above it that is missing. That some or all exist is no failure.
    ///
    /// Default: folderExists from the innermost outwards, then createFolder from the outermost missing one inwards. A
    /// folder that somebody else creates meanwhile is taken as it is. After a failure the outer folders remain.
    void createFolderRecursive(const StorageIRI& iri) const { doCreateFolderRecursive(iri); }

    /// Tell whether there is a file. That there is none is no failure.
    bool fileExists(const StorageIRI& iri) const { return doFileExists(iri); }

    /// Tell whether there is a folder. That there is none is no failure.
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

    /// Describe a file. ErrorCode::NotFound if there is none.
    FileAttributes getFileAttributes(const StorageIRI& iri) const { return doGetFileAttributes(iri); }

    /// Describe a folder. ErrorCode::NotFound if there is none.
    FolderAttributes getFolderAttributes(const StorageIRI& iri) const { return doGetFolderAttributes(iri); }

    /// Open a file for writing, and for reading too if the options ask for it. The caller owns the stream and closes
    /// it.
    ByteStreamPtr openStream(const StorageIRI& iri, const ByteStreamOpenOptions& options) const
    {
        return doOpenStream(iri, options);
    }

    /// Open an existing file for reading. The caller owns the stream.
    ByteStreamPtr openReadOnlyStream(const StorageIRI& iri) const { return doOpenReadOnlyStream(iri); }

    /// Open a stream for the whole new contents of a file, which are put in place only when the stream is closed. A
    /// stream that is destroyed without a close leaves the file as it was.
    ///
    /// Default: openTransactionalStreamAtScratchLocation in the system's temporary folder.
    ByteStreamPtr openTransactionalStream(const StorageIRI& iri) const { return doOpenTransactionalStream(iri); }

    /// The same, with the new contents kept in `scratchFolder` until the close.
    ///
    /// Default: `scratchFolder` names an existing local folder as a "file" IRI ("file:///var/tmp"), or is the empty IRI
    /// for the system's temporary folder; another one gets ErrorCode::InvalidLocation. The stream starts empty, and
    /// reads, writes and seeks in a local temporary file. Closing copies that file into the stream that openStream
    /// gives with ByteStreamTruncate::Discard, and closes it: whether the target changes in one step is up to that
    /// stream. When the copy fails, the close throws, and the target is whatever the provider leaves after a failed
    /// write. The provider must outlive the stream.
    ByteStreamPtr openTransactionalStreamAtScratchLocation(const StorageIRI& iri, const StorageIRI& scratchFolder) const
    {
        return doOpenTransactionalStreamAtScratchLocation(iri, scratchFolder);
    }

    // Listings. The iterator's names are relative to the listed folder; the order is the provider's.
    //
    // Wildcards: only entries whose last name matches `pattern` as a whole, case included. "*" is any
    // run of characters, "?" is any one character, "[a-z0]" is one of a set, "[!a-z]" or "[^a-z]" is one outside of it.
    // A "]" that comes first in a set stands for itself; a "[" without an end is an ordinary character. The time for
    // one name is at worst proportional to the pattern's length times the name's. Default: the plain listing, filtered.
    //
    // NamesOnly: the attributes of the entries are not to be looked at, which may save the provider fetching them;
    // name() and isFolder() hold. Default: the listing with attributes.

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

    /// Copy a file so that `destination` does not change before all of `source` was read.
    ///
    /// Default: a copy through openTransactionalStream. ErrorCode::AlreadyExists if the policy is Fail and there is a
    /// file at `destination`, ErrorCode::Unsupported for a policy that supportsReplacementPolicy does not know.
    void copyFileAtomic(const StorageIRI& source, const StorageIRI& destination, const ReplacementPolicy& policy) const
    {
        doCopyFileAtomic(source, destination, policy);
    }

    /// @param lastModified  UTC
    void setLastModified(const StorageIRI& iri, const boost::posix_time::ptime& lastModified) const
    {
        doSetLastModified(iri, lastModified);
    }
    void setWritable(const StorageIRI& iri, const bool writable) const { doSetWritable(iri, writable); }

    // Change notification: refused unless a provider brings it, together with the way to receive the events.
    void publishFolderEventsFor(const StorageIRI& iri) const { doPublishFolderEventsFor(iri); }
    void publishFileEventsFor(const StorageIRI& iri) const { doPublishFileEventsFor(iri); }
    void stopPublishingEventsFor(const StorageIRI& iri) const { doStopPublishingEventsFor(iri); }
    void startChangePollingMechanism(const StorageIRI& iri) const { doStartChangePollingMechanism(iri); }
    void stopChangePollingMechanism(const StorageIRI& iri) const { doStopChangePollingMechanism(iri); }

    /// Tell whether moves and copies understand `policy`. Default: the policies that ReplacementPolicy names.
    bool supportsReplacementPolicy(const ReplacementPolicy& policy) const
    {
        return doSupportsReplacementPolicy(policy);
    }

    /// Give the order of this provider's locations. Default: that of StorageIRI.
    PathComparator getPathComparator() const { return doGetPathComparator(); }

    /// Give the one location among several spellings of it. Default: StorageIRI::getResolvedIRI.
    StorageIRI getCanonicalLocation(const StorageIRI& iri) const { return doGetCanonicalLocation(iri); }

    /// Default: FilenameSensitivity::CaseSensitive.
    FilenameSensitivity getFilenameSensitivity() const { return doGetFilenameSensitivity(); }

    /// Let go of what the provider holds, before it is destroyed. Default: nothing.
    void shutdown() const { doShutdown(); }

    /// Tell whether there is a file or a folder. Default: fileExists, then folderExists.
    bool exists(const StorageIRI& iri) const { return doExists(iri); }

    /// Tell what there is; of a file and a folder of one name, the file. Default: fileExists, then folderExists.
    ResourceKind existsExtended(const StorageIRI& iri) const { return doExistsExtended(iri); }

    /// Describe a file or a folder without knowing which. ErrorCode::NotFound if there is neither.
    ///
    /// Default: existsExtended, then getFileAttributes or getFolderAttributes.
    ExtendedAttributes getExtendedAttributes(const StorageIRI& iri) const { return doGetExtendedAttributes(iri); }

    /// Tell how much room the store behind `iri` has.
    ProviderStorageInfo getProviderStorageInfo(const StorageIRI& iri) const { return doGetProviderStorageInfo(iri); }

    /// Make an existing file exactly `size` bytes long, cutting it or filling it up with zeros.
    ///
    /// Default, composed of getFileAttributes and openStream: cutting to 0 starts the file afresh, growing appends
    /// zeros, the present size changes nothing. Cutting to anything else is refused with ErrorCode::Unsupported, since
    /// writing the kept part anew would lose it if the writing failed; so is a file whose size the provider cannot
    /// tell.
    void truncateToSize(const StorageIRI& iri, std::uint64_t size) const { doTruncateToSize(iri, size); }

    /// Tell how many bytes the provider's local caches of `iri` take.
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
