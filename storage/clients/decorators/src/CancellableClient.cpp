#include <storage/clients/decorators/CancellableClient.hpp>

#include <storage/cloudprovider/CloudExceptions.hpp>

#include <utility>

namespace storage::clients
{

using namespace storage::cloudprovider;

CancellableClient::CancellableClient(std::shared_ptr<CloudClient> inner, std::function<bool()> interrupted)
    : InterceptingClient(std::move(inner))
    , m_interrupted(std::move(interrupted))
{
}

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

void CancellableClient::around(const Call& call, const std::function<void()>& proceed)
{
    // A flush whose upload cannot be opened ends without an error. So the upload is opened, and its parts are refused.
    if (changesStore(call.operation) && call.operation != Operation::CreateMultipartUpload &&
        call.operation != Operation::AbortMultipartUpload)
    {
        if (m_interrupted && m_interrupted())
        {
            throw UnknownErrorException("Interrupted", "\"" + call.key + "\" was not changed because of an interrupt");
        }
        const std::lock_guard lock(m_mutex);
        if (call.operation != Operation::DeleteObject && m_cancelled.count(call.key) != 0)
        {
            throw UnknownErrorException("Cancelled", "writing \"" + call.key + "\" was cancelled");
        }
    }
    proceed();
}

} // namespace storage::clients
