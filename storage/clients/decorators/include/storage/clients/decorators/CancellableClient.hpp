#pragma once

#include <storage/clients/decorators/ForwardingClient.hpp>

#include <mutex>
#include <set>
#include <string>

namespace storage::clients
{

/// Let a program forbid that what it is writing becomes visible.
///
/// A file written through the provider is committed when its last stream closes, and a stream can only be closed. So a
/// program whose source failed half-way, or whose user gave up, cancels first and closes then: the commit is refused,
/// the close fails, the upload is aborted, and the object under the key stays what it was.
///
/// While a key is cancelled, putObject(), createMultipartUpload(), uploadPart(), copyPart() and
/// completeMultipartUpload() of it throw UnknownErrorException; everything else passes, the abort above all. A call
/// that was already under way when the cancellation came is not recalled.
/// Safe for concurrent calls on one instance.
class CancellableClient : public ForwardingClient
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

    using ForwardingClient::ForwardingClient;

    /// Cancel one key until the result is destroyed. Cancelling a key twice is allowed; the last one to go releases it.
    [[nodiscard]] Cancellation cancel(const std::string& key) { return {*this, key}; }

    /// Cancel every key of every instance in this process, and refuse deleteObject() too, for ever.
    ///
    /// For the handler of an interrupt: async-signal-safe. Deletions are included so that the removal of a tree stops.
    static void cancelAll() noexcept;

    /// Whether cancelAll() was called, for those who wait on the store's behalf. From any thread.
    static bool everythingCancelled() noexcept;

    void deleteObject(const std::string& key) override;
    void putObject(const std::string& key, std::istream& content, std::uint64_t size) override;
    std::string createMultipartUpload(const std::string& key, const std::string& tag) override;
    std::string uploadPart(const std::string& key, const std::string& uploadId, const cloudprovider::PartInfo& part,
        std::istream& content) override;
    std::string copyPart(
        const std::string& key, const std::string& uploadId, const cloudprovider::PartInfo& part) override;
    void completeMultipartUpload(const std::string& key, const std::string& uploadId,
        const std::vector<cloudprovider::PartInfo>& parts) override;

private:
    void requireNotCancelled(const std::string& key) const;

    mutable std::mutex m_mutex;             // taken alone; never held during a call of the inner client
    std::multiset<std::string> m_cancelled; // guarded by m_mutex; one entry per living Cancellation
};

} // namespace storage::clients
