#include "MemoryStore.hpp"

#include <storage/clients/memory/MemoryClient.hpp>

#include <storage/clients/common/Content.hpp>
#include <storage/clients/common/KeyRules.hpp>

#include <storage/cloudprovider/CloudExceptions.hpp>

#include <boost/date_time/posix_time/posix_time.hpp>

#include <algorithm>
#include <sstream>
#include <utility>

namespace storage::clients
{

using cloudprovider::ListOptions;
using cloudprovider::ObjectEntry;
using cloudprovider::ObjectInfo;
using cloudprovider::PartInfo;
using cloudprovider::ResourceNotFoundException;

MemoryClient::MemoryClient(Clock clock)
    : MemoryClient(clock ? std::move(clock) : Clock(boost::posix_time::microsec_clock::universal_time),
          std::make_shared<MemoryStore>())
{
}

MemoryClient::MemoryClient(Clock clock, std::shared_ptr<MemoryStore> store)
    : m_clock(std::move(clock))
    , m_store(std::move(store))
{
}

MemoryClient::~MemoryClient() = default;

std::shared_ptr<MemoryClient> MemoryClient::openAnother() const
{
    return std::shared_ptr<MemoryClient>(new MemoryClient(m_clock, m_store));
}

ObjectInfo MemoryClient::getObjectInfo(const std::string& key)
{
    ObjectInfo info = m_store->info(key);
    info.exists = info.exists || key.empty(); // the root
    return info;
}

void MemoryClient::validateObjectName(const std::string& name)
{
    checkObjectName(name);
}

std::vector<ObjectEntry> MemoryClient::listObjects(
    const std::string& prefix, std::string& continuationToken, const ListOptions& options)
{
    return m_store->list(prefix, continuationToken, options, m_pageSize);
}

void MemoryClient::deleteObject(const std::string& key)
{
    const VersionPins::Deletion deletion(m_pins, key);
    m_store->remove(key, m_required.find(key));
}

void MemoryClient::getObjectRange(const std::string& key, std::ostream& out, std::uint64_t first, std::uint64_t last)
{
    m_pins.read(key,
        [&](const std::optional<Version>& version)
        {
            const auto [content, tag] = m_store->find(key);
            if (!content)
            {
                throw ResourceNotFoundException("reading " + quoted(key) + ": there is no such object");
            }
            if (version && version->tag != tag)
            {
                return false;
            }
            const ByteRange range = resolveRange(key, first, last, content->bytes.size());
            content->bytes.write(key, out, range.offset, range.size);
            return true;
        });
}

void MemoryClient::putObject(const std::string& key, std::istream& content, std::uint64_t size)
{
    checkKey(key);
    SharedBytes bytes(key, content, size);
    VersionPins::Write write(m_pins, key);
    write.succeeded({m_store->put(key, std::move(bytes), m_clock(), m_required.find(key)), size});
}

std::vector<PartInfo> MemoryClient::getObjectParts(const std::string& key)
{
    VersionPins::Opening opening(m_pins, key);
    auto [parts, version] = m_store->parts(key);
    opening.opened(version);
    return std::move(parts);
}

std::string MemoryClient::createMultipartUpload(const std::string& key, const std::string& tag)
{
    const auto base = tag.empty() ? std::nullopt : m_pins.pinned(key);
    return m_store->openUpload(key, tag, base ? base->tag : "", m_clock());
}

std::string MemoryClient::uploadPart(
    const std::string& key, const std::string& uploadId, const PartInfo& part, std::istream& content)
{
    m_store->checkUpload(key, uploadId); // before the transfer, so that a missing upload is reported early
    checkKey(key);                       // not when the upload is opened, because a close might hide that failure
    return m_store->addPart(key, uploadId, part.Index, SharedBytes(key, content, part.Size));
}

std::string MemoryClient::copyPart(const std::string& key, const std::string& uploadId, const PartInfo& part)
{
    return m_store->copyPart(key, uploadId, part);
}

void MemoryClient::abortMultipartUpload(const std::string& key, const std::string& uploadId)
{
    m_store->abort(key, uploadId);
}

void MemoryClient::completeMultipartUpload(
    const std::string& key, const std::string& uploadId, const std::vector<PartInfo>& parts)
{
    VersionPins::Write write(m_pins, key);
    write.succeeded(m_store->complete(key, uploadId, parts, m_clock(), m_required.find(key),
        [&](const std::string& stored, const std::string& opened) { return m_pins.descends(key, stored, opened); }));
}

std::unique_ptr<WriteConditions::Condition> MemoryClient::requireVersion(const std::string& key, const std::string& tag)
{
    return m_required.require(key, tag);
}

void MemoryClient::put(const std::string& key, std::string_view content)
{
    checkKey(key);
    m_store->put(key, SharedBytes(content), m_clock());
}

std::optional<std::string> MemoryClient::get(const std::string& key) const
{
    const auto content = m_store->find(key).first;
    if (!content)
    {
        return std::nullopt;
    }
    std::ostringstream out;
    content->bytes.write(key, out, 0, content->bytes.size());
    return std::move(out).str();
}

bool MemoryClient::remove(const std::string& key)
{
    return m_store->remove(key);
}

std::vector<std::string> MemoryClient::keys() const
{
    return m_store->keys();
}

std::optional<PinnedVersion> MemoryClient::pinnedVersion(const std::string& key)
{
    return m_pins.certain(key);
}

std::vector<PendingUpload> MemoryClient::pendingUploads()
{
    std::vector<PendingUpload> pending;
    for (OpenUpload& upload : openUploads())
    {
        pending.push_back({std::move(upload.key), std::move(upload.uploadId), upload.created});
    }
    return pending;
}

std::vector<OpenUpload> MemoryClient::openUploads() const
{
    return m_store->openUploads();
}

void MemoryClient::setPageSize(std::size_t entries) noexcept
{
    m_pageSize = std::max<std::size_t>(entries, 1);
}

} // namespace storage::clients
