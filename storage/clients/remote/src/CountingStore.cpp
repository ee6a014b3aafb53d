#include "CountingStore.hpp"

#include <type_traits>

namespace storage::clients
{

/// @param bytes   that a successful request moves
/// @param number  of the part that it stores; 0: none
template <typename Send>
auto CountingStore::count(Operation operation, const Send& send, std::uint64_t bytes, std::size_t number)
{
    {
        const std::lock_guard lock(m_mutex);
        ++m_counted[operation].calls;
    }
    const auto succeeded = [&]
    {
        const std::lock_guard lock(m_mutex);
        m_counted[operation].bytes += bytes;
        if (number > 0)
        {
            m_counted[operation].parts.insert(number - 1);
        }
    };
    if constexpr (std::is_void_v<decltype(send())>)
    {
        send();
        succeeded();
    }
    else
    {
        auto result = send();
        succeeded();
        return result;
    }
}

CallSnapshot CountingStore::snapshot() const
{
    const std::lock_guard lock(m_mutex);
    return m_counted;
}

std::optional<StoredObject> CountingStore::findObject(const std::string& key)
{
    return count(Operation::GetObjectInfo, [&] { return m_inner->findObject(key); });
}

Version CountingStore::getObject(const std::string& key, const std::optional<ByteRange>& range,
    const std::optional<Version>& version, const ContentReceiver& receiver)
{
    std::uint64_t received = 0;
    const auto receive = [&](const Version& object, std::string_view bytes)
    {
        receiver(object, bytes);
        received += bytes.size();
    };
    Version object = count(Operation::GetObjectRange, [&] { return m_inner->getObject(key, range, version, receive); });
    const std::lock_guard lock(m_mutex);
    m_counted[Operation::GetObjectRange].bytes += received;
    return object;
}

std::string CountingStore::putObject(const std::string& key, RequestBody& body, const WriteCondition& condition)
{
    return count(
        Operation::PutObject, [&] { return m_inner->putObject(key, body, condition); }, body.size());
}

void CountingStore::deleteObject(const std::string& key, const WriteCondition& condition)
{
    count(Operation::DeleteObject, [&] { m_inner->deleteObject(key, condition); });
}

ListingPage CountingStore::listObjects(
    const std::string& prefix, const std::string& token, const cloudprovider::ListOptions& options)
{
    return count(Operation::ListObjects, [&] { return m_inner->listObjects(prefix, token, options); });
}

std::string CountingStore::createUpload(const std::string& key)
{
    return count(Operation::CreateMultipartUpload, [&] { return m_inner->createUpload(key); });
}

std::string CountingStore::uploadPart(
    const std::string& key, const std::string& uploadId, std::size_t number, RequestBody& body)
{
    return count(
        Operation::UploadPart, [&] { return m_inner->uploadPart(key, uploadId, number, body); }, body.size(), number);
}

std::string CountingStore::takePart(const std::string& key, const std::string& uploadId, std::size_t number,
    const Version& source, const ByteRange& range)
{
    return count(
        Operation::CopyPart, [&] { return m_inner->takePart(key, uploadId, number, source, range); }, range.size,
        number);
}

std::string CountingStore::completeUpload(const std::string& key, const std::string& uploadId,
    const std::vector<NumberedTag>& parts, const WriteCondition& condition)
{
    return count(
        Operation::CompleteMultipartUpload, [&] { return m_inner->completeUpload(key, uploadId, parts, condition); });
}

void CountingStore::abortUpload(const std::string& key, const std::string& uploadId)
{
    count(Operation::AbortMultipartUpload, [&] { m_inner->abortUpload(key, uploadId); });
}

bool CountingStore::isOpen(const std::string& key, const std::string& uploadId)
{
    return count(Operation::CompleteMultipartUpload, [&] { return m_inner->isOpen(key, uploadId); });
}

UploadsPage CountingStore::listUploads(const std::string& token)
{
    return count(Operation::ListObjects, [&] { return m_inner->listUploads(token); });
}

} // namespace storage::clients
