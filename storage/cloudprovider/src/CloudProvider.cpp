#include <storage/cloudprovider/CloudProvider.hpp>

#include "ErrorTranslation.hpp"
#include "FlatCloudEntryIterator.hpp"
#include "LogRecords.hpp"
#include "OpenPartManager.hpp"
#include "RecursiveCloudEntryIterator.hpp"

#include <storage/cloudprovider/CloudExceptions.hpp>
#include <storage/cloudprovider/OpenFileManager.hpp>
#include <storage/cloudprovider/utils.hpp>

#include <foundation/interrupt/utInterruptState.hpp>
#include <foundation/storage/provider/GenericByteStreamDevice.hpp>
#include <foundation/usm/Context.hpp>

#include <array>
#include <sstream>
#include <utility>

namespace storage::cloudprovider
{

namespace fsp = foundation::storage::provider;

namespace
{

constexpr const char* source = "src/CloudProvider";

fsp::StorageIRI getResolvedIRI(const fsp::StorageIRI& iri)
{
    logEntry(CallSite("fsp::StorageIRI storage::cloudprovider::(anonymous namespace)::getResolvedIRI(const "
                      "fsp::StorageIRI &)",
                 source),
        named("iri", iri));
    try
    {
        return iri.getResolvedIRI();
    }
    catch (...)
    {
        logCaughtException();
        translateCurrentException(iri);
    }
}

/// Run an operation on the resolved IRI. Translate any exception into the framework's Exception about that IRI.
template <typename Body>
auto runOperation(const CallSite& site, const fsp::StorageIRI& iri, Body body)
{
    logEntry(site, named("iri", iri));
    fsp::StorageIRI resolved = iri;
    try
    {
        resolved = getResolvedIRI(iri);
        return body(std::as_const(resolved));
    }
    catch (...)
    {
        logCaughtException();
        translateCurrentException(resolved);
    }
}

/// The same for an operation on two IRIs.
/// @param body  called with both resolved IRIs and a pointer, which it sets to the IRI that its current step uses
template <typename Body>
void runTwoIriOperation(
    const CallSite& site, const char* firstName, const fsp::StorageIRI& first, const fsp::StorageIRI& second, Body body)
{
    logEntry(site, named(firstName, first));
    fsp::StorageIRI resolvedFirst = first;
    fsp::StorageIRI resolvedSecond = second;
    const fsp::StorageIRI* currentIri = &resolvedFirst;
    try
    {
        resolvedFirst = getResolvedIRI(first);
        currentIri = &resolvedSecond;
        resolvedSecond = getResolvedIRI(second);
        currentIri = &resolvedFirst;
        body(std::as_const(resolvedFirst), std::as_const(resolvedSecond), currentIri);
    }
    catch (...)
    {
        logCaughtException();
        translateCurrentException(*currentIri);
    }
}

/// Log the entry of an operation that the provider does not support, and throw.
[[noreturn]] void rejectUnsupported(const CallSite& site, const char* iriName, const fsp::StorageIRI& iri)
{
    logEntry(site, named(iriName, iri));
    throw fsp::Exception(fsp::ErrorCode::Unsupported, iri);
}

/// @throws foundation::storage::provider::Exception (InvalidLocation) for a key that only a folder can have
std::string fileKey(const fsp::StorageIRI& iri)
{
    std::string key = utils::iriToKey(iri);
    if (utils::hasTrailingSlash(key))
    {
        throw fsp::Exception(
            fsp::ErrorCode(fsp::ErrorCode::InvalidLocation, "the name of a file cannot end in \"/\""), iri);
    }
    return key;
}

/// Return the attributes of a file. A key that no file can have is not looked up.
ObjectInfo fileInfo(CloudClient& client, const fsp::StorageIRI& iri)
{
    const std::string key = utils::iriToKey(iri);
    return key.empty() || utils::hasTrailingSlash(key) ? ObjectInfo() : client.getObjectInfo(key);
}

std::string folderKey(const fsp::StorageIRI& iri)
{
    return utils::ensureTrailingSlash(utils::iriToKey(iri));
}

void putEmptyObject(CloudClient& client, const std::string& key)
{
    std::istringstream nothing;
    client.putObject(key, nothing, 0);
}

/// Return whether there is any object below a folder's key. The folder's own marker counts.
bool hasObjectBelow(CloudClient& client, const std::string& folder)
{
    std::string token;
    do // a page before the last may be empty
    {
        if (!client.listObjects(folder, token, ListOptions{"", 1}).empty())
        {
            return true;
        }
    } while (!token.empty());
    return false;
}

/// List a folder completely, or one level of it with a delimiter. Can be interrupted between pages.
std::vector<ObjectEntry> listEntries(CloudClient& client, const fsp::StorageIRI& iri, const std::string& delimiter)
{
    const std::string prefix = folderKey(iri);
    const ListOptions options{delimiter, -1};
    std::vector<ObjectEntry> entries;
    std::string token;
    do
    {
        std::vector<ObjectEntry> page = client.listObjects(prefix, token, options);
        entries.insert(entries.end(), std::make_move_iterator(page.begin()), std::make_move_iterator(page.end()));
        if (foundation::usm::isRequiredContextActive())
        {
            utInterruptState::ThrowIfInterruptPending();
        }
    } while (!token.empty());
    return entries;
}

/// Copy one stream into another up to its end, then close both. After a failure the destination is abandoned.
/// @param currentIri  set to the IRI of the stream that is in use
void copyStream(fsp::ByteStream& reader, const fsp::StorageIRI& sourceIri, fsp::ByteStream& writer,
    const fsp::StorageIRI& destinationIri, const fsp::StorageIRI*& currentIri)
{
    // The devices borrow the streams. Owning them needs memory; if there were none, the writer would not be abandoned.
    const std::shared_ptr<void> noOwner;
    fsp::GenericByteStreamDevice from(std::shared_ptr<fsp::ByteStream>(noOwner, &reader));
    fsp::GenericByteStreamDevice to(std::shared_ptr<fsp::ByteStream>(noOwner, &writer));
    const auto copy = [&]
    {
        std::array<char, 4096> chunk{};
        for (;;)
        {
            currentIri = &sourceIri;
            const std::streamsize count = from.read(chunk.data(), static_cast<std::streamsize>(chunk.size()));
            if (count < 0)
            {
                break;
            }
            currentIri = &destinationIri;
            to.write(chunk.data(), count);
        }
        from.close();
        currentIri = &destinationIri;
    };
    fsp::storeOrAbandon(writer, copy);
}

} // namespace

CloudProvider::CloudProvider(CloudClientSharedPtr client, FolderPolicy policy, bool checkFolderOnCopy)
    : m_client(std::move(client))
    , m_folderPolicy(policy)
    , m_checkFolderOnCopy(checkFolderOnCopy)
{
}

CloudProvider::~CloudProvider() = default;

std::shared_ptr<CloudProvider> buildCloudProvider(
    std::shared_ptr<CloudClient> client, FolderPolicy policy, bool checkFolderOnCopy)
{
    return std::make_shared<CloudProvider>(std::move(client), policy, checkFolderOnCopy);
}

void CloudProvider::doCreateFile(const StorageIRI& iri) const
{
    runOperation(
        CallSite("virtual void storage::cloudprovider::CloudProvider::doCreateFile(const StorageIRI &) const", source),
        iri,
        [this](const StorageIRI& resolved)
        {
            const std::string key = fileKey(resolved);
            if (m_client->getObjectInfo(key).exists)
            {
                throw ResourceAlreadyExistsException();
            }
            putEmptyObject(*m_client, key);
        });
}

void CloudProvider::doCreateFolder(const StorageIRI& iri) const
{
    runOperation(
        CallSite(
            "virtual void storage::cloudprovider::CloudProvider::doCreateFolder(const StorageIRI &) const", source),
        iri,
        [this](const StorageIRI& resolved)
        {
            if (m_folderPolicy != FolderPolicy::MarkerObjects)
            {
                throw UnsupportedOperationException();
            }
            if (resolved.hasParent() && !folderExists(resolved.getParent()))
            {
                throw ResourceNotFoundException();
            }
            const std::string marker = folderKey(resolved);
            if (m_client->getObjectInfo(utils::iriToKey(resolved)).exists || m_client->getObjectInfo(marker).exists)
            {
                throw ResourceAlreadyExistsException();
            }
            putEmptyObject(*m_client, marker);
        });
}

bool CloudProvider::doFileExists(const StorageIRI& iri) const
{
    return runOperation(
        CallSite("virtual bool storage::cloudprovider::CloudProvider::doFileExists(const StorageIRI &) const", source),
        iri, [this](const StorageIRI& resolved) { return fileInfo(*m_client, resolved).exists; });
}

bool CloudProvider::doFolderExists(const StorageIRI& iri) const
{
    return runOperation(
        CallSite(
            "virtual bool storage::cloudprovider::CloudProvider::doFolderExists(const StorageIRI &) const", source),
        iri,
        [this](const StorageIRI& resolved)
        {
            const std::string folder = folderKey(resolved);
            const bool found = hasObjectBelow(*m_client, folder);
            return found || folder.empty();
        });
}

void CloudProvider::doRemoveFile(const StorageIRI& iri) const
{
    runOperation(
        CallSite("virtual void storage::cloudprovider::CloudProvider::doRemoveFile(const StorageIRI &) const", source),
        iri,
        [this](const StorageIRI& resolved)
        {
            const std::string key = fileKey(resolved);
            if (globalOpenFileManager().isOpen(resolved))
            {
                throw ResourceInUseException();
            }
            m_client->deleteObject(key);
        });
}

void CloudProvider::doMoveFile(
    const StorageIRI& oldIri, const StorageIRI& newIri, const ReplacementPolicy& policy) const
{
    runTwoIriOperation(
        CallSite("virtual void storage::cloudprovider::CloudProvider::doMoveFile(const StorageIRI &, const "
                 "StorageIRI &, const fsp::ReplacementPolicy &) const",
            source),
        "old_iri", oldIri, newIri,
        [&](const StorageIRI& from, const StorageIRI& to, const StorageIRI*& currentIri)
        {
            const bool isSameFile = fileKey(from) == fileKey(to);
            if (globalOpenFileManager().isOpen(from))
            {
                throw fsp::Exception(fsp::ErrorCode::InUse, from);
            }
            if (!supportsReplacementPolicy(policy))
            {
                throw fsp::Exception(fsp::ErrorCode::Unsupported, from);
            }
            if ((policy == ReplacementPolicy::Fail && fileExists(to)) || folderExists(to))
            {
                throw fsp::Exception(fsp::ErrorCode::AlreadyExists, to);
            }
            if (isSameFile)
            {
                // A move would end by removing the copy itself.
                getFileAttributes(from);
                return;
            }
            if (globalOpenFileManager().isOpen(to))
            {
                // The copy would be shared with the streams that are open there and would be stored only when they
                // close. The source would be removed before that.
                throw fsp::Exception(fsp::ErrorCode::InUse, to);
            }
            const fsp::ByteStreamPtr reader = openReadOnlyStream(from);
            const fsp::ByteStreamPtr writer =
                openStream(to, {fsp::ByteStreamReadAccess::None, fsp::ByteStreamCreate::IfMissing,
                                   fsp::ByteStreamTruncate::Discard, fsp::ByteStreamWritePosition::AtOffset});
            // The contents that the writer shares with streams that are opened on the destination meanwhile.
            auto contents = globalOpenFileManager().open(to, {}, {}, m_client);
            copyStream(*reader, from, *writer, to, currentIri);
            if (!std::exchange(contents, nullptr)->isStored())
            {
                // Another stream is still open, or was the last to close and has not stored the copy.
                throw fsp::Exception(fsp::ErrorCode::InUse, to);
            }
            removeFile(from);
        });
}

void CloudProvider::doRemoveFolder(const StorageIRI& iri) const
{
    runOperation(
        CallSite(
            "virtual void storage::cloudprovider::CloudProvider::doRemoveFolder(const StorageIRI &) const", source),
        iri,
        [this](const StorageIRI& resolved)
        {
            const std::vector<ObjectEntry> entries = listEntries(*m_client, resolved, "/");
            if (entries.empty())
            {
                throw ResourceNotFoundException();
            }
            const std::string marker = folderKey(resolved);
            if (m_folderPolicy != FolderPolicy::MarkerObjects || entries.size() > 1 || entries.front().key != marker)
            {
                throw FolderNotEmptyException();
            }
            m_client->deleteObject(marker);
        });
}

void CloudProvider::doRemoveFolderRecursively(const StorageIRI& iri) const
{
    runOperation(CallSite("virtual void storage::cloudprovider::CloudProvider::doRemoveFolderRecursively(const "
                          "StorageIRI &) const",
                     source),
        iri,
        [this](const StorageIRI& resolved)
        {
            const std::vector<ObjectEntry> entries = listEntries(*m_client, resolved, "");
            if (entries.empty())
            {
                throw ResourceNotFoundException();
            }
            for (const ObjectEntry& entry : entries)
            {
                // Checks the folder's own IRI, not the entry's: only a stream opened under the folder's name prevents
                // the removal.
                if (globalOpenFileManager().isOpen(resolved))
                {
                    throw ResourceInUseException();
                }
                m_client->deleteObject(entry.key);
            }
        });
}

void CloudProvider::doMoveFolder(
    const StorageIRI& oldIri, const StorageIRI& /*newIri*/, const ReplacementPolicy& /*policy*/) const
{
    rejectUnsupported(
        CallSite("virtual void storage::cloudprovider::CloudProvider::doMoveFolder(const StorageIRI &, const "
                 "StorageIRI &, const fsp::ReplacementPolicy &) const",
            source),
        "old_iri", oldIri);
}

fsp::FileAttributes CloudProvider::doGetFileAttributes(const StorageIRI& iri) const
{
    return runOperation(CallSite("virtual fsp::FileAttributes "
                                 "storage::cloudprovider::CloudProvider::doGetFileAttributes(const StorageIRI &) const",
                            source),
        iri,
        [this](const StorageIRI& resolved)
        {
            const ObjectInfo info = fileInfo(*m_client, resolved);
            if (!info.exists)
            {
                throw ResourceNotFoundException();
            }
            return fsp::FileAttributes(info.size, info.lastModified, true);
        });
}

fsp::FolderAttributes CloudProvider::doGetFolderAttributes(const StorageIRI& iri) const
{
    return runOperation(
        CallSite("virtual fsp::FolderAttributes storage::cloudprovider::CloudProvider::doGetFolderAttributes(const "
                 "StorageIRI &) const",
            source),
        iri,
        [this](const StorageIRI& resolved)
        {
            const std::string folder = folderKey(resolved);
            if (m_folderPolicy == FolderPolicy::MarkerObjects && !folder.empty()) // the root has no marker
            {
                const ObjectInfo marker = m_client->getObjectInfo(folder);
                if (marker.exists)
                {
                    return fsp::FolderAttributes(marker.lastModified, true);
                }
            }
            if (!hasObjectBelow(*m_client, folder) && !folder.empty())
            {
                throw ResourceNotFoundException();
            }
            return fsp::FolderAttributes(boost::posix_time::not_a_date_time, true);
        });
}

fsp::ByteStreamPtr CloudProvider::doOpenStream(const StorageIRI& iri, const fsp::ByteStreamOpenOptions& options) const
{
    return runOperation(CallSite("virtual fsp::ByteStreamPtr storage::cloudprovider::CloudProvider::doOpenStream(const "
                                 "StorageIRI &, const fsp::ByteStreamOpenOptions &) const",
                            source),
        iri,
        [&](const StorageIRI& resolved)
        {
            fileKey(resolved); // rejects the name of a folder
            return globalOpenFileManager().openReadWrite(resolved, options, m_client);
        });
}

fsp::ByteStreamPtr CloudProvider::doOpenReadOnlyStream(const StorageIRI& iri) const
{
    return runOperation(
        CallSite("virtual fsp::ByteStreamPtr "
                 "storage::cloudprovider::CloudProvider::doOpenReadOnlyStream(const StorageIRI &) const",
            source),
        iri,
        [this](const StorageIRI& resolved)
        {
            fileKey(resolved); // rejects the name of a folder
            return globalOpenFileManager().openReadOnly(resolved, m_client);
        });
}

fsp::FolderEntryIteratorPtr CloudProvider::doListAll(const StorageIRI& iri) const
{
    return runOperation(CallSite("virtual fsp::FolderEntryIteratorPtr "
                                 "storage::cloudprovider::CloudProvider::doListAll(const StorageIRI &) const",
                            source),
        iri,
        [this](const StorageIRI& resolved) -> fsp::FolderEntryIteratorPtr
        { return std::make_unique<FlatCloudEntryIterator>(resolved, m_client, ListFilter::All); });
}

fsp::FolderEntryIteratorPtr CloudProvider::doListFiles(const StorageIRI& iri) const
{
    return runOperation(CallSite("virtual fsp::FolderEntryIteratorPtr "
                                 "storage::cloudprovider::CloudProvider::doListFiles(const StorageIRI &) const",
                            source),
        iri,
        [this](const StorageIRI& resolved) -> fsp::FolderEntryIteratorPtr
        { return std::make_unique<FlatCloudEntryIterator>(resolved, m_client, ListFilter::FilesOnly); });
}

fsp::FolderEntryIteratorPtr CloudProvider::doListFolders(const StorageIRI& iri) const
{
    return runOperation(CallSite("virtual fsp::FolderEntryIteratorPtr "
                                 "storage::cloudprovider::CloudProvider::doListFolders(const StorageIRI &) const",
                            source),
        iri,
        [this](const StorageIRI& resolved) -> fsp::FolderEntryIteratorPtr
        { return std::make_unique<FlatCloudEntryIterator>(resolved, m_client, ListFilter::FoldersOnly); });
}

fsp::FolderEntryIteratorPtr CloudProvider::doListAllRecursive(const StorageIRI& iri) const
{
    return runOperation(CallSite("virtual fsp::FolderEntryIteratorPtr "
                                 "storage::cloudprovider::CloudProvider::doListAllRecursive(const StorageIRI &) const",
                            source),
        iri,
        [this](const StorageIRI& resolved) -> fsp::FolderEntryIteratorPtr
        { return std::make_unique<RecursiveCloudEntryIterator>(resolved, m_client); });
}

void CloudProvider::doCopyFile(
    const StorageIRI& sourceIri, const StorageIRI& destination, const ReplacementPolicy& policy) const
{
    runTwoIriOperation(
        CallSite("virtual void storage::cloudprovider::CloudProvider::doCopyFile(const StorageIRI &, const "
                 "StorageIRI &, const fsp::ReplacementPolicy &) const",
            source),
        "iri", sourceIri, destination,
        [&](const StorageIRI& from, const StorageIRI& to, const StorageIRI*& currentIri)
        {
            const bool isSameFile = fileKey(from) == fileKey(to);
            // Unlike a move, a copy accepts every policy value. Only 0 and 4 refuse an existing file.
            const bool refusesExisting = (static_cast<std::uint32_t>(policy) | 4U) == 4U;
            if ((fileExists(to) && refusesExisting) || (m_checkFolderOnCopy && folderExists(to)))
            {
                throw fsp::Exception(fsp::ErrorCode::AlreadyExists, to);
            }
            if (isSameFile)
            {
                getFileAttributes(from);
                return;
            }
            const fsp::ByteStreamPtr reader = openReadOnlyStream(from);
            const fsp::ByteStreamPtr writer =
                openStream(to, {fsp::ByteStreamReadAccess::Allowed, fsp::ByteStreamCreate::IfMissing,
                                   fsp::ByteStreamTruncate::Discard, fsp::ByteStreamWritePosition::AtOffset});
            copyStream(*reader, from, *writer, to, currentIri);
        });
}

void CloudProvider::doSetLastModified(const StorageIRI& iri, const boost::posix_time::ptime& /*time*/) const
{
    rejectUnsupported(
        CallSite("virtual void storage::cloudprovider::CloudProvider::doSetLastModified(const StorageIRI &, const "
                 "boost::posix_time::ptime &) const",
            source),
        "iri", iri);
}

void CloudProvider::doSetWritable(const StorageIRI& iri, const bool /*writable*/) const
{
    rejectUnsupported(
        CallSite("virtual void storage::cloudprovider::CloudProvider::doSetWritable(const StorageIRI &, const bool) "
                 "const",
            source),
        "iri", iri);
}

bool CloudProvider::doSupportsReplacementPolicy(const ReplacementPolicy& policy) const
{
    return static_cast<std::uint32_t>(policy) < 2;
}

} // namespace storage::cloudprovider
