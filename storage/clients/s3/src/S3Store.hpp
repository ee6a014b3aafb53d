#pragma once

#include "protocol/Requester.hpp"

#include <storage/clients/remote/RemoteStore.hpp>
#include <storage/clients/s3/S3Settings.hpp>

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <exception>
#include <functional>
#include <map>
#include <optional>
#include <string>
#include <vector>

namespace storage::clients::s3
{

/// The requests of the S3 protocol to one bucket. See S3Client.
class S3Store : public RemoteStore
{
public:
    /// @throws cloudprovider::InvalidLocationException when the settings are not a valid address
    explicit S3Store(const S3Settings& settings);

    StoreAbilities abilities(const std::string& key) const override;
    std::optional<StoredObject> findObject(const std::string& key) override;
    Version getObject(const std::string& key, const std::optional<ByteRange>& range,
        const std::optional<Version>& version, const ContentReceiver& receiver) override;
    std::string putObject(const std::string& key, RequestBody& body, const WriteCondition& condition,
        const WrittenMetadata& metadata) override;
    void deleteObject(const std::string& key, const WriteCondition& condition) override;
    std::map<std::string, std::exception_ptr> deleteObjects(const std::vector<std::string>& keys) override;
    std::string copyObject(
        const CopySource& source, const std::string& target, const WriteCondition& condition) override;
    ListingPage listObjects(
        const std::string& prefix, const std::string& token, const cloudprovider::ListOptions& options) override;
    std::string createUpload(const std::string& key, const WrittenMetadata& metadata) override;
    std::string uploadPart(
        const std::string& key, const std::string& uploadId, std::size_t number, RequestBody& body) override;
    std::string takePart(const std::string& key, const std::string& uploadId, std::size_t number,
        const CopySource& source, const ByteRange& range) override;
    std::string completeUpload(const std::string& key, const std::string& uploadId,
        const std::vector<NumberedTag>& parts, const WriteCondition& condition) override;
    void abortUpload(const std::string& key, const std::string& uploadId) override;
    bool isOpen(const std::string& key, const std::string& uploadId) override;
    UploadsPage listUploads(const std::string& token) override;
    bool isMadeOf(const std::string& key, const StoredObject& object, RequestBody& body) override;
    bool isMadeOf(const std::string& key, const StoredObject& object, const std::string& uploadId,
        const std::vector<NumberedTag>& parts) override;

private:
    HttpResponse getFirstByte(S3Request request);
    void requireMissingKey(const S3Request& request, const HttpResponse& response);
    HttpHeaders headersFor(const S3Request& write, const WrittenMetadata& metadata);
    std::string sendCopy(S3Request request, const CopySource& source, std::uint64_t size,
        const std::function<std::string(const std::string& document)>& read);
    std::string sendWrite(
        S3Request& request, const WriteCondition& condition, const std::function<std::string()>& send);

    Requester m_requester;
    const std::string m_prefix; // of all keys; the requester adds it to those of requests
    const EndpointCapabilities m_capabilities;
    const std::size_t m_transfers; // requests that may be running at a time
    const bool m_hasHashesAsTags;  // an object that is encrypted with somebody's key has none
    /// The endpoint has refused to copy the version that it shows: some compare `x-amz-copy-source-if-match` with
    /// another tag of objects that are made of parts, others do not implement it.
    std::atomic<bool> m_refusesCopyConditions = false;
    std::atomic<bool> m_refusesCopies = false;       // of parts
    std::atomic<bool> m_refusesUnequalParts = false; // in a completion
    std::atomic<bool> m_deletesMany = true;          // until the endpoint refuses
};

} // namespace storage::clients::s3
