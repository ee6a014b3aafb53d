#pragma once

#include <storage/clients/common/StoreCounters.hpp>
#include <storage/clients/remote/RemoteStore.hpp>

#include <memory>
#include <mutex>

namespace storage::clients
{

/// Counts the requests to a store by the operation of CloudClient that they serve. Safe for concurrent calls.
class CountingStore : public RemoteStore
{
public:
    explicit CountingStore(std::unique_ptr<RemoteStore> inner)
        : m_inner(std::move(inner))
    {
    }

    CallSnapshot snapshot() const;

    StoreAbilities abilities(const std::string& key) const override { return m_inner->abilities(key); }
    std::optional<StoredObject> findObject(const std::string& key) override;
    Version getObject(const std::string& key, const std::optional<ByteRange>& range,
        const std::optional<Version>& version, const ContentReceiver& receiver) override;
    std::string putObject(const std::string& key, RequestBody& body, const WriteCondition& condition) override;
    void deleteObject(const std::string& key, const WriteCondition& condition) override;
    ListingPage listObjects(
        const std::string& prefix, const std::string& token, const cloudprovider::ListOptions& options) override;
    std::string createUpload(const std::string& key) override;
    std::string uploadPart(
        const std::string& key, const std::string& uploadId, std::size_t number, RequestBody& body) override;
    std::string takePart(const std::string& key, const std::string& uploadId, std::size_t number, const Version& source,
        const ByteRange& range) override;
    std::string completeUpload(const std::string& key, const std::string& uploadId,
        const std::vector<NumberedTag>& parts, const WriteCondition& condition) override;
    void abortUpload(const std::string& key, const std::string& uploadId) override;
    bool isOpen(const std::string& key, const std::string& uploadId) override;
    UploadsPage listUploads(const std::string& token) override;
    std::string tagOf(RequestBody& body) const override { return m_inner->tagOf(body); }
    std::string tagOf(const std::vector<NumberedTag>& parts) const override { return m_inner->tagOf(parts); }

private:
    template <typename Send>
    auto count(Operation operation, const Send& send, std::uint64_t bytes = 0, std::size_t number = 0);

    const std::unique_ptr<RemoteStore> m_inner;
    mutable std::mutex m_mutex; // innermost; not held during a request
    CallSnapshot m_counted;     // guarded by m_mutex
};

} // namespace storage::clients
