#pragma once

#include <storage/clients/decorators/InterceptingClient.hpp>

#include <exception>
#include <map>
#include <mutex>
#include <string>

namespace storage::clients
{

/// Remember why the store refused, for a host that tells people.
///
/// Some reasons do not reach the host: framework code 9 travels without a detail, and the last close of a file whose
/// upload could not even be opened ends quietly, since the stored object is untouched. A host that asks here after each
/// file finds out in both cases.
///
/// Every failure is rethrown unchanged. The latest failure of each key is kept until it is taken, or until putObject()
/// or completeMultipartUpload() commits the key: a retry has then succeeded. Failures of validateObjectName(), which
/// knows no key, and of abortMultipartUpload(), which are never the cause, are not kept. Safe for concurrent calls on
/// one instance.
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
