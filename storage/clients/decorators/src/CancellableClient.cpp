#include <storage/clients/decorators/CancellableClient.hpp>

#include <storage/cloudprovider/CloudExceptions.hpp>

#include <atomic>

namespace storage::clients
{

using namespace storage::cloudprovider;

namespace
{

std::atomic<bool> allCancelled{false};
static_assert(std::atomic<bool>::is_always_lock_free, "a signal handler sets it");

void requireNotInterrupted(const std::string& key)
{
    if (allCancelled)
    {
        throw UnknownErrorException("Interrupted", "refusing to change \"" + key + "\" after an interrupt");
    }
}

} // namespace

CancellableClient::Cancellation::Cancellation(CancellableClient& client, const std::string& key)
    : m_client(client)
    , m_entry(
          [&]
          {
              const std::lock_guard lock(client.m_mutex);
              return client.m_cancelled.insert(key);
          }())
{
}

CancellableClient::Cancellation::~Cancellation()
{
    const std::lock_guard lock(m_client.m_mutex);
    m_client.m_cancelled.erase(m_entry);
}

void CancellableClient::cancelAll() noexcept
{
    allCancelled = true;
}

bool CancellableClient::everythingCancelled() noexcept
{
    return allCancelled;
}

void CancellableClient::requireNotCancelled(const std::string& key) const
{
    requireNotInterrupted(key);
    const std::lock_guard lock(m_mutex);
    if (m_cancelled.count(key) != 0)
    {
        throw UnknownErrorException("Cancelled", "writing \"" + key + "\" was given up");
    }
}

void CancellableClient::deleteObject(const std::string& key)
{
    requireNotInterrupted(key);
    ForwardingClient::deleteObject(key);
}

void CancellableClient::putObject(const std::string& key, std::istream& content, std::uint64_t size)
{
    requireNotCancelled(key);
    ForwardingClient::putObject(key, content, size);
}

std::string CancellableClient::createMultipartUpload(const std::string& key, const std::string& tag)
{
    requireNotCancelled(key);
    return ForwardingClient::createMultipartUpload(key, tag);
}

std::string CancellableClient::uploadPart(
    const std::string& key, const std::string& uploadId, const PartInfo& part, std::istream& content)
{
    requireNotCancelled(key);
    return ForwardingClient::uploadPart(key, uploadId, part, content);
}

std::string CancellableClient::copyPart(const std::string& key, const std::string& uploadId, const PartInfo& part)
{
    requireNotCancelled(key);
    return ForwardingClient::copyPart(key, uploadId, part);
}

void CancellableClient::completeMultipartUpload(
    const std::string& key, const std::string& uploadId, const std::vector<PartInfo>& parts)
{
    requireNotCancelled(key);
    ForwardingClient::completeMultipartUpload(key, uploadId, parts);
}

} // namespace storage::clients
