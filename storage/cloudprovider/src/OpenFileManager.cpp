#include <storage/cloudprovider/OpenFileManager.hpp>

#include "LogRecords.hpp"
#include "Mutex.hpp"
#include "OpenFileByteStream.hpp"
#include "OpenFileContext.hpp"
#include "OpenPartManager.hpp"
#include "RestrictedByteStream.hpp"

#include <storage/cloudprovider/CloudExceptions.hpp>
#include <storage/cloudprovider/DiskBackedBufferFactory.hpp>
#include <storage/cloudprovider/utils.hpp>

#include <fl/i18n.hpp>

#include <map>

namespace storage::cloudprovider
{

namespace fsp = foundation::storage::provider;

namespace
{

constexpr const char* source = "src/OpenFileManager";

std::shared_ptr<OpenPartManager> buildPartManager(const fsp::StorageIRI& iri, fsp::ByteStreamCreate create,
    fsp::ByteStreamTruncate truncate, const CloudClientSharedPtr& client)
{
    auto partManager = std::make_shared<OpenPartManager>(
        std::make_shared<OpenFileContext>(iri, client, std::make_unique<DiskBackedBufferFactory>()));
    const bool mustExist = create == fsp::ByteStreamCreate::MustExist;
    if (truncate == fsp::ByteStreamTruncate::Keep)
    {
        partManager->initPreserveExisting(mustExist);
    }
    else if (mustExist)
    {
        if (!client->getObjectInfo(utils::iriToKey(iri)).exists)
        {
            throw ResourceNotFoundException();
        }
    }
    else
    {
        client->validateObjectName(fl::i18n::ustring_to_utf8(iri.getName()));
    }
    return partManager;
}

struct OpenFileEntry
{
    std::weak_ptr<OpenPartManager> partManager;
    bool opening = false; // a thread is building the part manager, without holding the mutex

    bool isStale() const { return !opening && partManager.expired(); }
};

} // namespace

/// What is open. Its mutex is held neither together with another lock nor while the store is called.
struct OpenFileManager::Registry
{
    bool isOpening(const fsp::StorageIRI& iri) const REQUIRES(mutex)
    {
        const auto entry = entries.find(iri);
        return entry != entries.end() && entry->second.opening;
    }

    /// Record the part manager, or remove the entry if it is null, and wake the threads that wait for the file.
    void finishOpening(const fsp::StorageIRI& iri, const std::shared_ptr<OpenPartManager>& partManager)
    {
        {
            const MutexLock lock(mutex);
            if (partManager)
            {
                entries[iri] = {partManager, false};
            }
            else
            {
                entries.erase(iri);
            }
        }
        // Wake all waiters: they may wait for different files, and a single wake-up could reach the wrong one.
        openingFinished.notify_all();
    }

    Mutex mutex;
    ConditionVariable openingFinished;
    std::map<fsp::StorageIRI, OpenFileEntry> entries GUARDED_BY(mutex);
};

OpenFileManager::OpenFileManager()
    : m_registry(std::make_unique<Registry>())
{
}

OpenFileManager::~OpenFileManager() = default;

OpenFileManager& globalOpenFileManager()
{
    static OpenFileManager manager;
    return manager;
}

bool OpenFileManager::isOpen(fsp::StorageIRI iri)
{
    const MutexLock lock(m_registry->mutex);
    const auto entry = m_registry->entries.find(iri);
    return entry != m_registry->entries.end() && !entry->second.isStale();
}

std::shared_ptr<OpenPartManager> OpenFileManager::open(
    fsp::StorageIRI iri, fsp::ByteStreamCreate create, fsp::ByteStreamTruncate truncate, CloudClientSharedPtr client)
{
    {
        MutexLock lock(m_registry->mutex);
        while (m_registry->isOpening(iri))
        {
            m_registry->openingFinished.wait(lock);
        }
        OpenFileEntry& entry = m_registry->entries[iri];
        if (std::shared_ptr<OpenPartManager> open = entry.partManager.lock())
        {
            return open;
        }
        entry.opening = true;
        std::erase_if(m_registry->entries, [](const auto& other) { return other.second.isStale(); });
    }
    std::shared_ptr<OpenPartManager> partManager;
    try
    {
        partManager = buildPartManager(iri, create, truncate, client);
    }
    catch (...)
    {
        m_registry->finishOpening(iri, nullptr);
        throw;
    }
    m_registry->finishOpening(iri, partManager);
    return partManager;
}

fsp::ByteStreamPtr OpenFileManager::openReadOnly(fsp::StorageIRI iri, CloudClientSharedPtr client)
{
    logEntry(CallSite("fsp::ByteStreamPtr storage::cloudprovider::OpenFileManager::openReadOnly(fsp::StorageIRI, "
                      "CloudClientSharedPtr)",
                 source),
        named("iri", iri));
    auto partManager =
        open(std::move(iri), fsp::ByteStreamCreate::MustExist, fsp::ByteStreamTruncate::Keep, std::move(client));
    constexpr bool mayWrite = false;
    return std::make_unique<ReadOnlyByteStream>(
        std::make_unique<OpenFileByteStream>(std::move(partManager), fsp::ByteStreamWritePosition::AtOffset, mayWrite));
}

fsp::ByteStreamPtr OpenFileManager::openReadWrite(
    fsp::StorageIRI iri, const fsp::ByteStreamOpenOptions& options, CloudClientSharedPtr client)
{
    logEntry(CallSite("fsp::ByteStreamPtr storage::cloudprovider::OpenFileManager::openReadWrite(StorageIRI, const "
                      "fsp::ByteStreamOpenOptions &, CloudClientSharedPtr)",
                 source),
        named("iri", iri), named("options", options));
    auto partManager = open(std::move(iri), options.create, options.truncate, std::move(client));
    auto stream = std::make_unique<OpenFileByteStream>(std::move(partManager), options.writePosition);
    if (options.readAccess == fsp::ByteStreamReadAccess::None)
    {
        OpenFileByteStream& opened = *stream;
        try
        {
            return std::make_unique<WriteOnlyByteStream>(std::move(stream));
        }
        catch (...) // There is no memory, so the stream was not moved. An open that fails must not store an empty file.
        {
            opened.abandon();
            throw;
        }
    }
    return stream;
}

} // namespace storage::cloudprovider
