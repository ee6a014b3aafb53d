#include <storage/clients/remote/RemoteClient.hpp>

#include "Downloads.hpp"
#include "FileMetadata.hpp"
#include "MemoryBudget.hpp"
#include "ObjectReader.hpp"
#include "ObjectWriter.hpp"
#include "PartBytes.hpp"
#include "ReadAhead.hpp"
#include "Retry.hpp"
#include "TaskPool.hpp"
#include "Uploads.hpp"

#include <storage/clients/common/KeyRules.hpp>
#include <storage/cloudprovider/CloudExceptions.hpp>

#include <limits>
#include <list>
#include <utility>

namespace storage::clients
{

using namespace cloudprovider;

/// The parts of a client, each of which uses those before it.
class RemoteClient::Engine
{
public:
    Engine(std::unique_ptr<RemoteStore> distant, const RemoteSettings& settings)
        : store(std::move(distant))
        , retry(settings.retry, settings.clock, settings.interrupted)
        , metadata(settings)
        , memory(settings.memory)
        , reader(*store, retry, pins, settings.partSize)
        , writer(*store, retry, pins, required, metadata)
        , readAhead(reader, pins, pool, memory, settings)
        , downloads(reader, pool, settings)
        , uploads(*store, retry, pins, required, reader, metadata, memory, pool)
        , pool(settings.transfers > 1 ? settings.transfers : 0)
    {
    }
    Engine(const Engine&) = delete;
    Engine& operator=(const Engine&) = delete;

    ~Engine()
    {
        readAhead.drop();
        uploads.abortAll();
    }

    const std::unique_ptr<RemoteStore> store;
    Retry retry;
    VersionPins pins;
    RequiredVersions required;
    const FileMetadata metadata;
    MemoryBudget memory;
    ObjectReader reader;
    ObjectWriter writer;
    ReadAhead readAhead;
    Downloads downloads;
    Uploads uploads;
    TaskPool pool; // last: destroyed first, since its tasks use all others
};

RemoteClient::RemoteClient(std::unique_ptr<RemoteStore> store, const RemoteSettings& settings)
    : m_engine(std::make_unique<Engine>(std::move(store), settings))
{
}

RemoteClient::~RemoteClient() = default;

ObjectInfo RemoteClient::getObjectInfo(const std::string& key)
{
    if (key.empty())
    {
        return {true, {}, 0, {}};
    }
    const auto object = m_engine->reader.find({Operation::GetObjectInfo, key});
    return object ? ObjectInfo{true, object->version.tag, object->version.size, object->lastModified} : ObjectInfo();
}

void RemoteClient::validateObjectName(const std::string& name)
{
    checkObjectName(name);
}

std::vector<ObjectEntry> RemoteClient::listObjects(
    const std::string& prefix, std::string& continuationToken, const ListOptions& options)
{
    return m_engine->reader.list(prefix, continuationToken, options);
}

void RemoteClient::deleteObject(const std::string& key)
{
    const ReadAhead::Write write(m_engine->readAhead, key);
    const VersionPins::Deletion deletion(m_engine->pins, key);
    m_engine->writer.remove(key);
}

void RemoteClient::getObjectRange(const std::string& key, std::ostream& out, std::uint64_t first, std::uint64_t last)
{
    const bool isWhole = first == 0 && last == 0;
    const bool isRange = !isWhole && last >= first && last != std::numeric_limits<std::uint64_t>::max();
    if (!isRange || !m_engine->readAhead.read(key, out, {first, last - first + 1}))
    {
        m_engine->reader.read(key, out, first, last);
    }
}

void RemoteClient::putObject(const std::string& key, std::istream& content, std::uint64_t size)
{
    const ReadAhead::Write write(m_engine->readAhead, key);
    StreamBody body(key, content, size);
    m_engine->writer.put(key, body);
}

std::vector<PartInfo> RemoteClient::getObjectParts(const std::string& key)
{
    return m_engine->reader.parts(key);
}

std::string RemoteClient::createMultipartUpload(const std::string& key, const std::string& tag)
{
    return m_engine->uploads.create(key, tag);
}

std::string RemoteClient::uploadPart(
    const std::string& key, const std::string& uploadId, const PartInfo& part, std::istream& content)
{
    return m_engine->uploads.send(key, uploadId, part, content);
}

std::string RemoteClient::copyPart(const std::string& key, const std::string& uploadId, const PartInfo& part)
{
    return m_engine->uploads.copy(key, uploadId, part);
}

void RemoteClient::abortMultipartUpload(const std::string& key, const std::string& uploadId)
{
    m_engine->uploads.abort(key, uploadId);
}

void RemoteClient::completeMultipartUpload(
    const std::string& key, const std::string& uploadId, const std::vector<PartInfo>& parts)
{
    const ReadAhead::Write write(m_engine->readAhead, key);
    m_engine->uploads.complete(key, uploadId, parts);
}

std::vector<PendingUpload> RemoteClient::pendingUploads()
{
    return m_engine->uploads.pending();
}

std::unique_ptr<WriteConditions::Condition> RemoteClient::requireVersion(const std::string& key, const std::string& tag)
{
    return m_engine->required.require(key, tag);
}

bool RemoteClient::isAtomic() const noexcept
{
    const StoreAbilities store = m_engine->store->abilities({});
    return store.conditionalWrites && store.conditionalCreation && store.conditionalCompletion;
}

std::string RemoteClient::copyObject(const std::string& source, const std::string& target)
{
    const ReadAhead::Write write(m_engine->readAhead, target);
    const auto object = m_engine->reader.find({Operation::GetObjectInfo, source});
    if (!object)
    {
        throw ResourceNotFoundException("copying " + quoted(source) + " failed: there is no such object");
    }
    const CopySource copied{source, object->version};
    const StoreAbilities store = m_engine->store->abilities(source);
    if (copied.version.size <= store.maxCopySize)
    {
        m_engine->writer.copy(copied, target);
    }
    else if (store.maxTakeSize > 0)
    {
        m_engine->uploads.copyObject(copied, target, store.maxTakeSize);
    }
    else
    {
        throw UnsupportedOperationException("the store cannot copy " + quoted(source));
    }
    return copied.version.tag;
}

void RemoteClient::downloadObject(const std::string& key, const Sink& sink)
{
    m_engine->downloads.fetch(key, sink);
}

void RemoteClient::uploadObject(const std::string& key, const Source& source)
{
    const ReadAhead::Write write(m_engine->readAhead, key);
    if (source.size > 2 * m_engine->store->abilities(key).minPartSize)
    {
        m_engine->uploads.storeObject(key, source);
        return;
    }
    PartBytes bytes(m_engine->memory, source.size); // as an upload it would have one part, too
    source.read(0, bytes.data(), source.size);
    source.check();
    SpanBody body({bytes.view()});
    m_engine->writer.put(key, body);
    source.sent(source.size);
}

void RemoteClient::uploadStream(const std::string& key, const ReadNext& read)
{
    const ReadAhead::Write write(m_engine->readAhead, key);
    const std::size_t capacity = m_engine->store->abilities(key).minPartSize;
    const auto bytes = std::make_unique_for_overwrite<char[]>(capacity);
    const auto readPart = [&]
    {
        std::size_t size = 0;
        for (std::size_t count = 1; count > 0 && size < capacity; size += count)
        {
            count = read(bytes.get() + size, capacity - size);
        }
        return std::string_view(bytes.get(), size);
    };
    const std::string_view first = readPart();
    if (first.size() == capacity)
    {
        m_engine->uploads.storeStream(key, first, readPart);
        return;
    }
    SpanBody body({first});
    m_engine->writer.put(key, body);
}

std::map<std::string, std::exception_ptr> RemoteClient::deleteObjects(const std::vector<std::string>& keys)
{
    std::list<ReadAhead::Write> writes;
    std::list<VersionPins::Deletion> deletions;
    for (const std::string& key : keys)
    {
        writes.emplace_back(m_engine->readAhead, key);
        deletions.emplace_back(m_engine->pins, key);
    }
    return m_engine->writer.remove(keys);
}

std::optional<PinnedVersion> RemoteClient::pinnedVersion(const std::string& key)
{
    return m_engine->pins.certain(key);
}

CallSnapshot RemoteClient::callSnapshot() const
{
    return m_engine->retry.callSnapshot();
}

RemoteClient::Waiting RemoteClient::waiting() const
{
    return m_engine->retry.waiting();
}

} // namespace storage::clients
