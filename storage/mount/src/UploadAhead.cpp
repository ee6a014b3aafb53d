#include "UploadAhead.hpp"

#include "Failure.hpp"

#include <storage/clients/common/KeyRules.hpp>
#include <storage/cloudprovider/Logger.hpp>

#include <foundation/log/Severity.hpp>

#include <fmt/format.h>

#include <algorithm>
#include <utility>

namespace storage::mount
{

namespace
{

constexpr std::size_t maxParts = 10'000; // of one object, in common stores

void warn(const std::string& key, const char* reason) noexcept
try
{
    cloudprovider::getLogger().write(foundation::log::severity::warning,
        fmt::format("aborting an upload of {} failed; it stays open: {}", key, reason));
}
catch (...) // no memory
{
}

} // namespace

UploadAhead::UploadAhead(cloudprovider::CloudClient& client, std::string key, std::uint64_t partSize)
    : m_client(client)
    , m_key(std::move(key))
    , m_partSize(partSize)
    , m_id(client.createMultipartUpload(m_key, ""))
{
}

UploadAhead::~UploadAhead()
{
    try
    {
        m_isComplete ? void() : m_client.abortMultipartUpload(m_key, m_id);
    }
    catch (...)
    {
        warn(clients::quoted(m_key), Failure::current().what());
    }
}

bool UploadAhead::canSend(std::uint64_t written) const
{
    return (m_parts.size() + 1) * m_partSize <= written && m_parts.size() < maxParts;
}

bool UploadAhead::canComplete(std::uint64_t size) const
{
    return !m_parts.empty() && size <= maxParts * m_partSize;
}

void UploadAhead::changed(std::uint64_t offset, std::uint64_t size)
{
    for (auto index = offset / m_partSize; index < m_parts.size() && index * m_partSize < offset + size; ++index)
    {
        m_parts[index].Tag.clear();
    }
}

void UploadAhead::cut(std::uint64_t size)
{
    m_parts.resize(std::min<std::uint64_t>(m_parts.size(), size / m_partSize));
}

void UploadAhead::sendNext(const ReadBytes& read)
{
    cloudprovider::PartInfo part{m_parts.size(), m_parts.size() * m_partSize, m_partSize, ""};
    send(part, read);
    m_parts.push_back(std::move(part));
}

void UploadAhead::complete(std::uint64_t size, const ReadBytes& read)
{
    std::vector<cloudprovider::PartInfo> parts = m_parts;
    for (std::uint64_t offset = parts.size() * m_partSize; offset < size; offset += m_partSize)
    {
        parts.push_back({parts.size(), offset, std::min(m_partSize, size - offset), ""});
    }
    for (cloudprovider::PartInfo& part : parts)
    {
        part.Tag.empty() ? send(part, read) : void();
    }
    m_client.completeMultipartUpload(m_key, m_id, parts);
    m_isComplete = true;
}

void UploadAhead::send(cloudprovider::PartInfo& part, const ReadBytes& read)
{
    part.Tag = withPartStream(read, part.Offset, part.Size,
        [&](std::istream& content) { return m_client.uploadPart(m_key, m_id, part, content); });
}

} // namespace storage::mount
