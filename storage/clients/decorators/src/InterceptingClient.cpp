#include <storage/clients/decorators/InterceptingClient.hpp>

#include <type_traits>
#include <utility>

namespace storage::clients
{

using namespace storage::cloudprovider;

InterceptingClient::InterceptingClient(std::shared_ptr<CloudClient> inner)
    : m_inner(std::move(inner))
{
}

void InterceptingClient::around(const Call&, const std::function<void()>& proceed)
{
    proceed();
}

template <typename Make>
auto InterceptingClient::pass(const Call& call, Make make)
{
    if constexpr (std::is_void_v<decltype(make())>)
    {
        around(call, make);
    }
    else
    {
        decltype(make()) result{};
        around(call, [&] { result = make(); });
        return result;
    }
}

ObjectInfo InterceptingClient::getObjectInfo(const std::string& key)
{
    return pass({Operation::GetObjectInfo, key}, [&] { return m_inner->getObjectInfo(key); });
}

void InterceptingClient::validateObjectName(const std::string& name)
{
    pass({Operation::ValidateObjectName, name}, [&] { m_inner->validateObjectName(name); });
}

std::vector<ObjectEntry> InterceptingClient::listObjects(
    const std::string& prefix, std::string& continuationToken, const ListOptions& options)
{
    return pass(
        {Operation::ListObjects, prefix}, [&] { return m_inner->listObjects(prefix, continuationToken, options); });
}

void InterceptingClient::deleteObject(const std::string& key)
{
    pass({Operation::DeleteObject, key}, [&] { m_inner->deleteObject(key); });
}

void InterceptingClient::getObjectRange(
    const std::string& key, std::ostream& out, std::uint64_t first, std::uint64_t last)
{
    pass({Operation::GetObjectRange, key}, [&] { m_inner->getObjectRange(key, out, first, last); });
}

void InterceptingClient::putObject(const std::string& key, std::istream& content, std::uint64_t size)
{
    pass({Operation::PutObject, key, nullptr, size}, [&] { m_inner->putObject(key, content, size); });
}

std::vector<PartInfo> InterceptingClient::getObjectParts(const std::string& key)
{
    return pass({Operation::GetObjectParts, key}, [&] { return m_inner->getObjectParts(key); });
}

std::string InterceptingClient::createMultipartUpload(const std::string& key, const std::string& tag)
{
    return pass({Operation::CreateMultipartUpload, key}, [&] { return m_inner->createMultipartUpload(key, tag); });
}

std::string InterceptingClient::uploadPart(
    const std::string& key, const std::string& uploadId, const PartInfo& part, std::istream& content)
{
    return pass({Operation::UploadPart, key, &part, part.Size, &uploadId},
        [&] { return m_inner->uploadPart(key, uploadId, part, content); });
}

std::string InterceptingClient::copyPart(const std::string& key, const std::string& uploadId, const PartInfo& part)
{
    return pass({Operation::CopyPart, key, &part, part.Size, &uploadId},
        [&] { return m_inner->copyPart(key, uploadId, part); });
}

void InterceptingClient::abortMultipartUpload(const std::string& key, const std::string& uploadId)
{
    pass({Operation::AbortMultipartUpload, key, nullptr, 0, &uploadId},
        [&] { m_inner->abortMultipartUpload(key, uploadId); });
}

void InterceptingClient::completeMultipartUpload(
    const std::string& key, const std::string& uploadId, const std::vector<PartInfo>& parts)
{
    pass({Operation::CompleteMultipartUpload, key, nullptr, 0, &uploadId},
        [&] { m_inner->completeMultipartUpload(key, uploadId, parts); });
}

} // namespace storage::clients
