#include <storage/clients/decorators/FailureRecordingClient.hpp>

namespace storage::clients
{

using namespace storage::cloudprovider;

std::exception_ptr FailureRecordingClient::takeFailure(const std::string& key)
{
    const std::lock_guard lock(m_mutex);
    const auto node = m_failures.extract(key);
    return node ? node.mapped() : nullptr;
}

template <typename Call>
auto FailureRecordingClient::recording(const std::string& key, Call call)
{
    try
    {
        return call();
    }
    catch (...)
    {
        const std::lock_guard lock(m_mutex);
        m_failures.insert_or_assign(key, std::current_exception());
        throw;
    }
}

ObjectInfo FailureRecordingClient::getObjectInfo(const std::string& key)
{
    return recording(key, [&] { return ForwardingClient::getObjectInfo(key); });
}

std::vector<ObjectEntry> FailureRecordingClient::listObjects(
    const std::string& prefix, std::string& continuationToken, const ListOptions& options)
{
    return recording(prefix, [&] { return ForwardingClient::listObjects(prefix, continuationToken, options); });
}

void FailureRecordingClient::deleteObject(const std::string& key)
{
    recording(key, [&] { ForwardingClient::deleteObject(key); });
}

void FailureRecordingClient::getObjectRange(
    const std::string& key, std::ostream& out, std::uint64_t first, std::uint64_t last)
{
    recording(key, [&] { ForwardingClient::getObjectRange(key, out, first, last); });
}

void FailureRecordingClient::putObject(const std::string& key, std::istream& content, std::uint64_t size)
{
    recording(key, [&] { ForwardingClient::putObject(key, content, size); });
    takeFailure(key);
}

std::vector<PartInfo> FailureRecordingClient::getObjectParts(const std::string& key)
{
    return recording(key, [&] { return ForwardingClient::getObjectParts(key); });
}

std::string FailureRecordingClient::createMultipartUpload(const std::string& key, const std::string& tag)
{
    return recording(key, [&] { return ForwardingClient::createMultipartUpload(key, tag); });
}

std::string FailureRecordingClient::uploadPart(
    const std::string& key, const std::string& uploadId, const PartInfo& part, std::istream& content)
{
    return recording(key, [&] { return ForwardingClient::uploadPart(key, uploadId, part, content); });
}

std::string FailureRecordingClient::copyPart(const std::string& key, const std::string& uploadId, const PartInfo& part)
{
    return recording(key, [&] { return ForwardingClient::copyPart(key, uploadId, part); });
}

void FailureRecordingClient::completeMultipartUpload(
    const std::string& key, const std::string& uploadId, const std::vector<PartInfo>& parts)
{
    recording(key, [&] { ForwardingClient::completeMultipartUpload(key, uploadId, parts); });
    takeFailure(key);
}

} // namespace storage::clients
