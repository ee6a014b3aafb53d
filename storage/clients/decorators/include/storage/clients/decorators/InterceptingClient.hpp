#pragma once

#include <storage/clients/common/Operation.hpp>

#include <storage/cloudprovider/CloudClient.hpp>

#include <cstdint>
#include <functional>
#include <iosfwd>
#include <memory>
#include <string>
#include <vector>

namespace storage::clients
{

/// Wrap a client so that every operation passes through one function: the base of all decorators.
///
/// A decorator that treats all or several operations alike overrides around(). A decorator that needs the arguments or
/// the result of an operation overrides that operation. There it calls the base class's operation, which passes through
/// around(), or inner(), which does not. This is the only class that lists the operations of CloudClient for
/// decorators: a new one is added here, and passes through every around() from then on.
///
/// Keeps the contract of the inner client. Adds no state and no lock, so it is as safe for concurrent calls as the
/// inner client.
class InterceptingClient : public cloudprovider::CloudClient
{
public:
    /// @param inner  never null; shared for the life of this client
    explicit InterceptingClient(std::shared_ptr<cloudprovider::CloudClient> inner);

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

    /// The client that this one wraps, for callers that look for other interfaces there. Valid as long as this client.
    cloudprovider::CloudClient& inner() const noexcept { return *m_inner; }

protected:
    /// One call of an operation. Refers to the call's arguments, so it is valid until the call returns.
    struct Call
    {
        Operation operation;
        /// For validateObjectName() the name, for listObjects() the prefix.
        const std::string& key;
        /// The part of uploadPart() and copyPart(); null for all other operations.
        const cloudprovider::PartInfo* part = nullptr;
        /// How many bytes putObject() or uploadPart() sends, or copyPart() copies; 0 for all other operations.
        std::uint64_t size = 0;
        /// Of the upload that the call is for; null for all other operations.
        const std::string* uploadId = nullptr;
    };

    /// Make one call. This default does nothing else. Called on the thread of the operation's caller, without any lock
    /// of this class.
    ///
    /// @param proceed  makes the call of the inner client, and throws what that throws. May be called several times;
    ///                 the operation returns the last result. It does not rewind the stream of getObjectRange(),
    ///                 putObject() or uploadPart(), so call it only once for these. If it is not called, the operation
    ///                 returns an empty result.
    virtual void around(const Call& call, const std::function<void()>& proceed);

private:
    template <typename Make>
    auto pass(const Call& call, Make make);

    const std::shared_ptr<cloudprovider::CloudClient> m_inner;
};

} // namespace storage::clients
