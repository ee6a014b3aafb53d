#include <storage/clients/decorators/FailureRecordingClient.hpp>

namespace storage::clients
{

std::exception_ptr FailureRecordingClient::takeFailure(const std::string& key)
{
    const std::lock_guard lock(m_mutex);
    const auto node = m_failures.extract(key);
    return node ? node.mapped() : nullptr;
}

void FailureRecordingClient::around(const Call& call, const std::function<void()>& proceed)
{
    try
    {
        proceed();
    }
    catch (...)
    {
        if (call.operation != Operation::ValidateObjectName && call.operation != Operation::AbortMultipartUpload)
        {
            const std::lock_guard lock(m_mutex);
            m_failures.insert_or_assign(call.key, std::current_exception());
        }
        throw;
    }
    // A deleted object is no retry of the write that failed.
    if (replacesObject(call.operation) && call.operation != Operation::DeleteObject)
    {
        takeFailure(call.key);
    }
}

} // namespace storage::clients
