#include "UploadPipeline.hpp"

#include <storage/clients/decorators/PipelinedUploadClient.hpp>

#include <utility>

namespace storage::clients
{

using namespace storage::cloudprovider;

PipelinedUploadClient::PipelinedUploadClient(std::shared_ptr<CloudClient> inner, const PipelineSettings& settings)
    : InterceptingClient(std::move(inner))
    , m_pipeline(settings.transfers > 1 ? std::make_unique<UploadPipeline>(this->inner(), settings) : nullptr)
{
}

PipelinedUploadClient::~PipelinedUploadClient() = default;

std::string PipelinedUploadClient::createMultipartUpload(const std::string& key, const std::string& tag)
{
    return m_pipeline ? m_pipeline->create(key, tag) : InterceptingClient::createMultipartUpload(key, tag);
}

std::string PipelinedUploadClient::uploadPart(
    const std::string& key, const std::string& uploadId, const PartInfo& part, std::istream& content)
{
    return m_pipeline ? m_pipeline->send(key, uploadId, part, content)
                      : InterceptingClient::uploadPart(key, uploadId, part, content);
}

std::string PipelinedUploadClient::copyPart(const std::string& key, const std::string& uploadId, const PartInfo& part)
{
    return m_pipeline ? m_pipeline->copy(key, uploadId, part) : InterceptingClient::copyPart(key, uploadId, part);
}

void PipelinedUploadClient::abortMultipartUpload(const std::string& key, const std::string& uploadId)
{
    m_pipeline ? m_pipeline->abort(key, uploadId) : InterceptingClient::abortMultipartUpload(key, uploadId);
}

void PipelinedUploadClient::completeMultipartUpload(
    const std::string& key, const std::string& uploadId, const std::vector<PartInfo>& parts)
{
    m_pipeline ? m_pipeline->complete(key, uploadId, parts)
               : InterceptingClient::completeMultipartUpload(key, uploadId, parts);
}

} // namespace storage::clients
