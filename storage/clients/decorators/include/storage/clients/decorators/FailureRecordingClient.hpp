#pragma once

#include <storage/clients/decorators/ForwardingClient.hpp>

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
/// Every failure is rethrown unchanged. Of each key the latest is kept until it is taken, or until the key is committed
/// by putObject() or completeMultipartUpload(): a failure that a retry has mended is none. Failures of aborts are not
/// kept, since they never are the cause. Safe for concurrent calls on one instance.
class FailureRecordingClient : public ForwardingClient
{
public:
    using ForwardingClient::ForwardingClient;

    /// Return the failure that stands recorded for a key, or for a prefix that was listed, and forget it. Null: none.
    std::exception_ptr takeFailure(const std::string& key);

    cloudprovider::ObjectInfo getObjectInfo(const std::string& key) override;
    std::vector<cloudprovider::ObjectEntry> listObjects(
        const std::string& prefix, std::string& continuationToken, const cloudprovider::ListOptions& options) override;
    void deleteObject(const std::string& key) override;
    void getObjectRange(const std::string& key, std::ostream& out, std::uint64_t first, std::uint64_t last) override;
    void putObject(const std::string& key, std::istream& content, std::uint64_t size) override;
    std::vector<cloudprovider::PartInfo> getObjectParts(const std::string& key) override;
    std::string createMultipartUpload(const std::string& key, const std::string& tag) override;
    std::string uploadPart(const std::string& key, const std::string& uploadId, const cloudprovider::PartInfo& part,
        std::istream& content) override;
    std::string copyPart(
        const std::string& key, const std::string& uploadId, const cloudprovider::PartInfo& part) override;
    void completeMultipartUpload(const std::string& key, const std::string& uploadId,
        const std::vector<cloudprovider::PartInfo>& parts) override;

private:
    template <typename Call>
    auto recording(const std::string& key, Call call);

    std::mutex m_mutex;                                   // taken alone; never held during a call of the inner client
    std::map<std::string, std::exception_ptr> m_failures; // guarded by m_mutex; by key
};

} // namespace storage::clients
