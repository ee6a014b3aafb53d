#include <storage/clients/s3/S3Client.hpp>

#include "KnownVersions.hpp"
#include "MultipartUploads.hpp"
#include "Objects.hpp"
#include "UploadPlan.hpp"

#include "protocol/Requester.hpp"

#include <storage/clients/common/KeyRules.hpp>

#include <algorithm>

namespace storage::clients
{

using namespace cloudprovider;

namespace
{

constexpr std::size_t maxKnownVersions = 16'384; // files open at once

} // namespace

S3Client::S3Client(const s3::S3Settings& settings)
    : m_requester(std::make_unique<s3::Requester>(settings))
    , m_versions(std::make_unique<s3::KnownVersions>(maxKnownVersions))
    , m_objects(std::make_unique<s3::Objects>(*m_requester, *m_versions,
          settings.capabilities.equalParts ? std::max<std::uint64_t>(settings.partSize, s3::minPartSize)
                                           : settings.partSize))
    , m_uploads(std::make_unique<s3::MultipartUploads>(*m_requester, *m_versions, *m_objects, settings))
{
}

S3Client::~S3Client() = default;

ObjectInfo S3Client::getObjectInfo(const std::string& key)
{
    m_counters.countCall(Operation::GetObjectInfo);
    if (key.empty())
    {
        return {true, {}, 0, {}};
    }
    return m_objects->info(Operation::GetObjectInfo, key).value_or(ObjectInfo());
}

void S3Client::validateObjectName(const std::string& name)
{
    m_counters.countCall(Operation::ValidateObjectName);
    checkObjectName(name);
}

std::vector<ObjectEntry> S3Client::listObjects(
    const std::string& prefix, std::string& continuationToken, const ListOptions& options)
{
    m_counters.countCall(Operation::ListObjects);
    return m_objects->list(prefix, continuationToken, options);
}

void S3Client::deleteObject(const std::string& key)
{
    m_counters.countCall(Operation::DeleteObject);
    m_objects->remove(key);
}

void S3Client::getObjectRange(const std::string& key, std::ostream& out, std::uint64_t first, std::uint64_t last)
{
    m_counters.countCall(Operation::GetObjectRange);
    m_counters.countBytes(Operation::GetObjectRange, m_objects->read(key, out, first, last));
}

void S3Client::putObject(const std::string& key, std::istream& content, std::uint64_t size)
{
    m_counters.countCall(Operation::PutObject);
    m_objects->put(key, content, size);
    m_counters.countBytes(Operation::PutObject, size);
}

std::vector<PartInfo> S3Client::getObjectParts(const std::string& key)
{
    m_counters.countCall(Operation::GetObjectParts);
    return m_objects->parts(key);
}

std::string S3Client::createMultipartUpload(const std::string& key, const std::string& tag)
{
    m_counters.countCall(Operation::CreateMultipartUpload);
    return m_uploads->create(key, tag);
}

std::string S3Client::uploadPart(
    const std::string& key, const std::string& uploadId, const PartInfo& part, std::istream& content)
{
    m_counters.countCall(Operation::UploadPart);
    std::string tag = m_uploads->send(key, uploadId, part, content);
    m_counters.countPart(Operation::UploadPart, part.Index, part.Size);
    return tag;
}

std::string S3Client::copyPart(const std::string& key, const std::string& uploadId, const PartInfo& part)
{
    m_counters.countCall(Operation::CopyPart);
    std::string tag = m_uploads->copy(key, uploadId, part);
    m_counters.countPart(Operation::CopyPart, part.Index, part.Size);
    return tag;
}

void S3Client::abortMultipartUpload(const std::string& key, const std::string& uploadId)
{
    m_counters.countCall(Operation::AbortMultipartUpload);
    m_uploads->abort(key, uploadId);
}

void S3Client::completeMultipartUpload(
    const std::string& key, const std::string& uploadId, const std::vector<PartInfo>& parts)
{
    m_counters.countCall(Operation::CompleteMultipartUpload);
    m_uploads->complete(key, uploadId, parts);
}

CallSnapshot S3Client::callSnapshot() const
{
    return m_counters.snapshot();
}

std::vector<PendingUpload> S3Client::pendingUploads()
{
    return m_uploads->pending();
}

} // namespace storage::clients
