#include <storage/clients/s3/S3Client.hpp>

#include "MultipartUploads.hpp"
#include "Objects.hpp"
#include "UploadPlan.hpp"

#include "protocol/Requester.hpp"

#include <storage/clients/common/KeyRules.hpp>

namespace storage::clients
{

using namespace cloudprovider;

S3Client::S3Client(const s3::S3Settings& settings)
    : m_requester(std::make_unique<s3::Requester>(settings))
    , m_isAtomic(settings.capabilities.conditionalWrites && settings.capabilities.conditionalCompletion)
    , m_objects(std::make_unique<s3::Objects>(*m_requester, m_pins, m_required, settings))
    , m_uploads(std::make_unique<s3::MultipartUploads>(*m_requester, m_pins, m_required, *m_objects, settings))
{
}

S3Client::~S3Client() = default;

ObjectInfo S3Client::getObjectInfo(const std::string& key)
{
    if (key.empty())
    {
        return {true, {}, 0, {}};
    }
    return m_objects->info(Operation::GetObjectInfo, key).value_or(ObjectInfo());
}

void S3Client::validateObjectName(const std::string& name)
{
    checkObjectName(name);
}

std::vector<ObjectEntry> S3Client::listObjects(
    const std::string& prefix, std::string& continuationToken, const ListOptions& options)
{
    return m_objects->list(prefix, continuationToken, options);
}

void S3Client::deleteObject(const std::string& key)
{
    m_objects->remove(key);
}

void S3Client::getObjectRange(const std::string& key, std::ostream& out, std::uint64_t first, std::uint64_t last)
{
    m_objects->read(key, out, first, last);
}

void S3Client::putObject(const std::string& key, std::istream& content, std::uint64_t size)
{
    m_objects->put(key, content, size);
}

std::vector<PartInfo> S3Client::getObjectParts(const std::string& key)
{
    return m_objects->parts(key);
}

std::string S3Client::createMultipartUpload(const std::string& key, const std::string& tag)
{
    return m_uploads->create(key, tag);
}

std::string S3Client::uploadPart(
    const std::string& key, const std::string& uploadId, const PartInfo& part, std::istream& content)
{
    return m_uploads->send(key, uploadId, part, content);
}

std::string S3Client::copyPart(const std::string& key, const std::string& uploadId, const PartInfo& part)
{
    return m_uploads->copy(key, uploadId, part);
}

void S3Client::abortMultipartUpload(const std::string& key, const std::string& uploadId)
{
    m_uploads->abort(key, uploadId);
}

void S3Client::completeMultipartUpload(
    const std::string& key, const std::string& uploadId, const std::vector<PartInfo>& parts)
{
    m_uploads->complete(key, uploadId, parts);
}

std::vector<PendingUpload> S3Client::pendingUploads()
{
    return m_uploads->pending();
}

std::unique_ptr<WriteConditions::Condition> S3Client::requireVersion(const std::string& key, const std::string& tag)
{
    return m_required.require(key, tag);
}

} // namespace storage::clients
