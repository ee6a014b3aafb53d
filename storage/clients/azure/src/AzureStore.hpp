#pragma once

#include "BlockUploads.hpp"

#include "protocol/Requester.hpp"
#include "protocol/Responses.hpp"

#include <storage/clients/azure/AzureSettings.hpp>
#include <storage/clients/remote/RemoteStore.hpp>

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <exception>
#include <functional>
#include <map>
#include <optional>
#include <string>
#include <vector>

namespace storage::clients::azure
{

/// The requests of Azure Blob Storage to one container. See AzureClient.
///
/// The service has no uploads: blocks are sent to a name, and a list of blocks makes the blob. So an upload is a record
/// of this object, with an id of its own. Whole blocks that the blob has already are not copied: the tag of such a part
/// names a run of them.
class AzureStore : public RemoteStore
{
public:
    /// @throws cloudprovider::InvalidLocationException when the settings are not a valid address
    explicit AzureStore(const AzureSettings& settings);

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
    std::vector<std::uint64_t> partEnds(const std::string& key, const Version& version) override;
    std::string takeWholeParts(const std::string& key, const std::string& uploadId, std::size_t number,
        const Version& version, const ByteRange& range) override;
    std::string takePart(const std::string& key, const std::string& uploadId, std::size_t number,
        const CopySource& source, const ByteRange& range) override;
    std::string completeUpload(const std::string& key, const std::string& uploadId,
        const std::vector<NumberedTag>& parts, const WriteCondition& condition) override;
    void abortUpload(const std::string& key, const std::string& uploadId) override;
    bool isOpen(const std::string& key, const std::string& uploadId) override;

    /// Only those of this object: the service does not say which blocks belong together.
    UploadsPage listUploads(const std::string& token) override;

    bool isMadeOf(const std::string& key, const StoredObject& object, RequestBody& body) override;
    bool isMadeOf(const std::string& key, const StoredObject& object, const std::string& uploadId,
        const std::vector<NumberedTag>& parts) override;

private:
    struct StoredBlocks
    {
        std::string tag; // of the blob; empty: there is none, or it has no blocks
        BlockList list;
    };

    Version getRange(const std::string& key, const std::optional<ByteRange>& range,
        const std::optional<Version>& version, const ContentReceiver& receiver);
    StoredBlocks findBlocks(const std::string& key, Operation operation);
    bool isMissing(const AzureRequest& request, const HttpResponse& response);
    void requireBlockBlob(const AzureRequest& write, const ObjectMetadata& metadata) const;
    HttpHeaders headersFor(const AzureRequest& write, const WrittenMetadata& metadata);
    void addTierAndTags(
        HttpHeaders& headers, const AzureRequest& write, const ObjectMetadata& metadata, const std::string& source);
    AzureRequest blockRequest(Operation operation, BlockUpload& upload, std::size_t number);
    HttpResponse sendCopy(AzureRequest request, const CopySource& source, std::uint64_t size);
    std::string sendWrite(AzureRequest& request, const WriteCondition& condition);

    Requester m_requester;
    BlockUploads m_uploads;
    const std::string m_prefix;    // of all keys; the requester adds it to those of requests
    const std::size_t m_transfers; // requests that may be running at a time
    // The server does not implement copies of blobs, or of ranges, as emulators do not; or it is not reached privately,
    // so that others could use the signature of the source.
    std::atomic<bool> m_refusesCopies;
    std::atomic<bool> m_refusesTakes;
};

} // namespace storage::clients::azure
