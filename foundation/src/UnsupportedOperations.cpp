#include <foundation/storage/provider/IProvider.hpp>

// Default operations that throw ErrorCode::Unsupported.

namespace foundation::storage::provider
{

namespace
{

[[noreturn]] void refuse(const char* operation, const StorageIRI& iri)
{
    throw Exception(
        ErrorCode(ErrorCode::Unsupported, std::string(operation) + " is not supported by this provider"), iri);
}

} // namespace

void IProvider::doCreateFile(const StorageIRI& iri) const
{
    refuse("createFile", iri);
}

void IProvider::doCreateFolder(const StorageIRI& iri) const
{
    refuse("createFolder", iri);
}

bool IProvider::doFileExists(const StorageIRI& iri) const
{
    refuse("fileExists", iri);
}

bool IProvider::doFolderExists(const StorageIRI& iri) const
{
    refuse("folderExists", iri);
}

void IProvider::doRemoveFile(const StorageIRI& iri) const
{
    refuse("removeFile", iri);
}

void IProvider::doMoveFile(const StorageIRI& oldIri, const StorageIRI&, const ReplacementPolicy&) const
{
    refuse("moveFile", oldIri);
}

void IProvider::doRemoveFolder(const StorageIRI& iri) const
{
    refuse("removeFolder", iri);
}

void IProvider::doRemoveFolderRecursively(const StorageIRI& iri) const
{
    refuse("removeFolderRecursively", iri);
}

void IProvider::doMoveFolder(const StorageIRI& oldIri, const StorageIRI&, const ReplacementPolicy&) const
{
    refuse("moveFolder", oldIri);
}

FileAttributes IProvider::doGetFileAttributes(const StorageIRI& iri) const
{
    refuse("getFileAttributes", iri);
}

FolderAttributes IProvider::doGetFolderAttributes(const StorageIRI& iri) const
{
    refuse("getFolderAttributes", iri);
}

ByteStreamPtr IProvider::doOpenStream(const StorageIRI& iri, const ByteStreamOpenOptions&) const
{
    refuse("openStream", iri);
}

ByteStreamPtr IProvider::doOpenReadOnlyStream(const StorageIRI& iri) const
{
    refuse("openReadOnlyStream", iri);
}

FolderEntryIteratorPtr IProvider::doListAll(const StorageIRI& iri) const
{
    refuse("listAll", iri);
}

FolderEntryIteratorPtr IProvider::doListFiles(const StorageIRI& iri) const
{
    refuse("listFiles", iri);
}

FolderEntryIteratorPtr IProvider::doListFolders(const StorageIRI& iri) const
{
    refuse("listFolders", iri);
}

FolderEntryIteratorPtr IProvider::doListAllRecursive(const StorageIRI& iri) const
{
    refuse("listAllRecursive", iri);
}

void IProvider::doCopyFile(const StorageIRI& source, const StorageIRI&, const ReplacementPolicy&) const
{
    refuse("copyFile", source);
}

void IProvider::doSetLastModified(const StorageIRI& iri, const boost::posix_time::ptime&) const
{
    refuse("setLastModified", iri);
}

void IProvider::doSetWritable(const StorageIRI& iri, const bool) const
{
    refuse("setWritable", iri);
}

void IProvider::doPublishFolderEventsFor(const StorageIRI& iri) const
{
    refuse("publishFolderEventsFor", iri);
}

void IProvider::doPublishFileEventsFor(const StorageIRI& iri) const
{
    refuse("publishFileEventsFor", iri);
}

void IProvider::doStopPublishingEventsFor(const StorageIRI& iri) const
{
    refuse("stopPublishingEventsFor", iri);
}

void IProvider::doStartChangePollingMechanism(const StorageIRI& iri) const
{
    refuse("startChangePollingMechanism", iri);
}

void IProvider::doStopChangePollingMechanism(const StorageIRI& iri) const
{
    refuse("stopChangePollingMechanism", iri);
}

ProviderStorageInfo IProvider::doGetProviderStorageInfo(const StorageIRI& iri) const
{
    refuse("getProviderStorageInfo", iri);
}

std::uint64_t IProvider::doGetProviderCacheUsage(const StorageIRI& iri) const
{
    refuse("getProviderCacheUsage", iri);
}

} // namespace foundation::storage::provider
