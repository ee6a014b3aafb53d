#pragma once

#include <storage/clients/decorators/InterceptingClient.hpp>

#include <functional>
#include <memory>
#include <mutex>
#include <set>
#include <string>

namespace storage::clients
{

/// Let a program prevent that what it is writing becomes visible.
///
/// A file written through the provider is committed when its last stream closes, and a stream can only be closed. So a
/// program whose source failed half-way cancels the key first and closes then: the commit is refused, the close fails,
/// the upload is aborted, and the object under the key stays what it was.
///
/// While a key is cancelled, every operation on it that stores something throws UnknownErrorException: putObject(),
/// createMultipartUpload(), uploadPart(), copyPart() and completeMultipartUpload(). While the process is interrupted,
/// these and deleteObject() throw for every key, so that the removal of a tree stops, too. Everything else passes,
/// abortMultipartUpload() above all. A call that is already in progress is not affected.
/// Safe for concurrent calls on one instance.
class CancellableClient : public InterceptingClient
{
public:
    /// Forbids the commit of one key for as long as it lives. Keep it until every stream on the file is gone.
    class Cancellation
    {
    public:
        Cancellation(CancellableClient& client, const std::string& key);
        Cancellation(const Cancellation&) = delete;
        Cancellation& operator=(const Cancellation&) = delete;
        ~Cancellation();

    private:
        CancellableClient& m_client;
        const std::multiset<std::string>::iterator m_entry; // stays valid whatever else comes and goes
    };

    /// @param interrupted  whether the process is interrupted. Asked on the caller's thread before each call that
    ///                     changes the store; must be safe to call from any thread. Empty: never.
    explicit CancellableClient(
        std::shared_ptr<cloudprovider::CloudClient> inner, std::function<bool()> interrupted = {});

    /// Cancel one key until the result is destroyed. Cancelling a key twice is allowed; the last one to go releases it.
    [[nodiscard]] Cancellation cancel(const std::string& key) { return {*this, key}; }

protected:
    void around(const Call& call, const std::function<void()>& proceed) override;

private:
    const std::function<bool()> m_interrupted;
    std::mutex m_mutex;                     // taken alone; never held during a call of the inner client
    std::multiset<std::string> m_cancelled; // guarded by m_mutex; one entry per living Cancellation
};

} // namespace storage::clients
