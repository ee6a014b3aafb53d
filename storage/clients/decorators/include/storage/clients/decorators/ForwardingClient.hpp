#pragma once

#include <storage/cloudprovider/CloudClient.hpp>

#include <cstdint>
#include <iosfwd>
#include <memory>
#include <string>
#include <vector>

namespace storage::clients
{

/// Hand every operation to another client, unchanged: the base of decorators, which override what they are about.
///
/// Adds no state and no lock; as safe for concurrent calls as the client behind it, whose contract it keeps.
class ForwardingClient : public cloudprovider::CloudClient
{
public:
    /// @param inner  never null; shared for the life of this client
    explicit ForwardingClient(std::shared_ptr<cloudprovider::CloudClient> inner);

    cloudprovider::ObjectInfo getObjectInfo(const std::string& key) override;
    void validateObjectName(const std::string& name) override;
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
    void abortMultipartUpload(const std::string& key, const std::string& uploadId) override;
    void completeMultipartUpload(const std::string& key, const std::string& uploadId,
        const std::vector<cloudprovider::PartInfo>& parts) override;

    /// The client behind. For those who look for what else it offers; calls belong to this one.
    cloudprovider::CloudClient& inner() const noexcept { return *m_inner; }

private:
    const std::shared_ptr<cloudprovider::CloudClient> m_inner;
};

} // namespace storage::clients
