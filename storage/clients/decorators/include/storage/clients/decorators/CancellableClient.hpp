#pragma once

#include <storage/clients/decorators/InterceptingClient.hpp>

#include <functional>
#include <memory>
#include <mutex>
#include <set>
#include <string>

namespace storage::clients
{

/// Cancel writes, so that an incomplete file never becomes visible.
///
/// The provider commits a file when its last stream is closed, and a stream cannot be discarded without closing it. If
/// a program cannot finish a file, it cancels the key first and then closes the stream. This client then rejects the
/// commit: the close fails, the upload is aborted, and the object under the key does not change.
///
/// While a key is cancelled, every operation on it that stores something throws UnknownErrorException: putObject(),
/// uploadPart(), copyPart() and completeMultipartUpload(). While the process is interrupted, these and deleteObject()
/// throw for every key, so that the removal of a tree stops, too. All other operations pass: createMultipartUpload(),
/// because the provider would close a file without an error if it failed, and abortMultipartUpload(), which cleans up.
/// A call that is already in progress is not affected. Safe for concurrent calls on one instance.
class CancellableClient : public InterceptingClient
{
public:
    /// Keeps one key cancelled during its lifetime. Keep it until every stream on the file is closed.
    class Cancellation
    {
    public:
        Cancellation(CancellableClient& client, const std::string& key);
        Cancellation(const Cancellation&) = delete;
        Cancellation& operator=(const Cancellation&) = delete;
        ~Cancellation();

    private:
        CancellableClient& m_client;
        const std::multiset<std::string>::iterator m_entry; // stays valid while other entries change
    };

    /// @param interrupted  whether the process is interrupted. Called on the caller's thread before each call that
    ///                     changes the store; must be safe to call from any thread. Empty: never.
    explicit CancellableClient(
        std::shared_ptr<cloudprovider::CloudClient> inner, std::function<bool()> interrupted = {});

    /// Cancel one key until the result is destroyed. A key may be cancelled several times; it stays cancelled until the
    /// last Cancellation is destroyed.
    [[nodiscard]] Cancellation cancel(const std::string& key) { return {*this, key}; }

protected:
    void around(const Call& call, const std::function<void()>& proceed) override;

private:
    const std::function<bool()> m_interrupted;
    std::mutex m_mutex;                     // taken alone; never held during a call of the inner client
    std::multiset<std::string> m_cancelled; // guarded by m_mutex; one entry per living Cancellation
};

} // namespace storage::clients
