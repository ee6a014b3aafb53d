#include <storage/clients/decorators/ForwardingClient.hpp>

#include <utility>

namespace storage::clients
{

using namespace storage::cloudprovider;

ForwardingClient::ForwardingClient(std::shared_ptr<CloudClient> inner)
    : m_inner(std::move(inner))
{
}

ObjectInfo ForwardingClient::getObjectInfo(const std::string& key)
{
    return m_inner->getObjectInfo(key);
}

void ForwardingClient::validateObjectName(const std::string& name)
{
    m_inner->validateObjectName(name);
}

std::vector<ObjectEntry> ForwardingClient::listObjects(
    const std::string& prefix, std::string& continuationToken, const ListOptions& options)
{
    return m_inner->listObjects(prefix, continuationToken, options);
}

void ForwardingClient::deleteObject(const std::string& key)
{
    m_inner->deleteObject(key);
}

void ForwardingClient::getObjectRange(
    const std::string& key, std::ostream& out, std::uint64_t first, std::uint64_t last)
{
    m_inner->getObjectRange(key, out, first, last);
}

void ForwardingClient::putObject(const std::string& key, std::istream& content, std::uint64_t size)
{
    m_inner->putObject(key, content, size);
}

std::vector<PartInfo> ForwardingClient::getObjectParts(const std::string& key)
{
    return m_inner->getObjectParts(key);
}

std::string ForwardingClient::createMultipartUpload(const std::string& key, const std::string& tag)
{
    return m_inner->createMultipartUpload(key, tag);
}

std::string ForwardingClient::uploadPart(
    const std::string& key, const std::string& uploadId, const PartInfo& part, std::istream& content)
{
    return m_inner->uploadPart(key, uploadId, part, content);
}

std::string ForwardingClient::copyPart(const std::string& key, const std::string& uploadId, const PartInfo& part)
{
    return m_inner->copyPart(key, uploadId, part);
}

void ForwardingClient::abortMultipartUpload(const std::string& key, const std::string& uploadId)
{
    m_inner->abortMultipartUpload(key, uploadId);
}

void ForwardingClient::completeMultipartUpload(
    const std::string& key, const std::string& uploadId, const std::vector<PartInfo>& parts)
{
    m_inner->completeMultipartUpload(key, uploadId, parts);
}

} // namespace storage::clients
