#pragma once

#include <storage/clients/decorators/InterceptingClient.hpp>

#include <exception>
#include <map>
#include <mutex>
#include <string>

namespace storage::clients
{

/// Record the failures of the inner client, for a host that reports them to its users.
///
/// The provider does not report every reason: a failure with framework code 9 has no detail, and closing a file whose
/// multipart upload could not be opened reports success, since the stored object is unchanged. In both cases, a host
/// that calls takeFailure() after each file gets the reason.
///
/// Every failure is rethrown unchanged. The latest failure of each key is kept until takeFailure() returns it, or until
/// putObject() or completeMultipartUpload() commits the key, because another attempt has then succeeded. Failures of
/// validateObjectName(), which has no key, and of abortMultipartUpload(), which is never the cause, are not kept. Safe
/// for concurrent calls on one instance.
class FailureRecordingClient : public InterceptingClient
{
public:
    using InterceptingClient::InterceptingClient;

    /// Return the failure recorded for a key, or for a prefix that was listed, and forget it. Null: there is none.
    std::exception_ptr takeFailure(const std::string& key);

protected:
    void around(const Call& call, const std::function<void()>& proceed) override;

private:
    std::mutex m_mutex;                                   // taken alone; never held during a call of the inner client
    std::map<std::string, std::exception_ptr> m_failures; // guarded by m_mutex; by key
};

} // namespace storage::clients
