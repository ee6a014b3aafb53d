#pragma once

#include "KnownVersions.hpp"
#include "Objects.hpp"
#include "UploadPlan.hpp"
#include "UploadRegistry.hpp"

#include "protocol/Requester.hpp"

#include <storage/clients/common/UploadInventory.hpp>
#include <storage/clients/s3/S3Settings.hpp>
#include <storage/cloudprovider/CloudClient.hpp>

#include <iosfwd>
#include <mutex>
#include <optional>
#include <set>
#include <string>
#include <vector>

namespace storage::clients::s3
{

/// Objects that are written in parts. The operations are those of CloudClient.
///
/// Parts that the store takes as they are go to it at once. Copies, and small parts of a file that had other content
/// before, are only noted: the completion knows what stands beside them, and makes few requests of all, several at a
/// time. What it has made stays when it fails in passing, so that a repeated one makes only what is missing.
class MultipartUploads
{
public:
    MultipartUploads(Requester& requester, KnownVersions& versions, Objects& objects, const S3Settings& settings)
        : m_requester(requester)
        , m_versions(versions)
        , m_objects(objects)
        , m_capabilities(settings.capabilities)
        , m_transfers(settings.transfers)
        , m_memory(settings.memory / 2)
    {
    }

    std::string create(const std::string& key, const std::string& tag);
    std::string send(
        const std::string& key, const std::string& id, const cloudprovider::PartInfo& part, std::istream& content);
    std::string copy(const std::string& key, const std::string& id, const cloudprovider::PartInfo& part);
    void abort(const std::string& key, const std::string& id);
    void complete(const std::string& key, const std::string& id, const std::vector<cloudprovider::PartInfo>& parts);
    std::vector<PendingUpload> pending();

private:
    /// What a completion is about to do.
    struct Completion
    {
        UploadPlan plan;
        Version source;       ///< of the object that unchanged bytes are taken from; no tag: of none
        std::string replaces; ///< entity tag of the object that it is made from; empty: whatever is there
    };
    using NumberedTags = std::vector<std::pair<std::size_t, std::string>>;

    std::string openAtStore(Upload& upload);
    std::string sendBody(Upload& upload, std::size_t number, RequestBody& body);
    Version requireSource(const cloudprovider::PartInfo& part, const S3Request& request);
    UploadLimits limitsFor(const std::string& key) const;
    Completion prepare(const Upload& upload, const std::string& id, const std::vector<cloudprovider::PartInfo>& parts);
    std::string assembleObject(Upload& upload, const Completion& completion);
    NumberedTags transferParts(Upload& upload, const Completion& completion);
    std::string transferPart(Upload& upload, const PlannedPart& part, const Version& source);
    std::string gather(const Upload& upload, const PlannedPart& part, const Version& source);
    std::string finishUpload(Upload& upload, const Completion& completion, const NumberedTags& parts);
    [[noreturn]] void throwOutcomeUnknown(const S3Request& request);
    bool isUploadGone(const Upload& upload);
    void abortOfOthers(const std::string& key, const std::string& storeId);

    Requester& m_requester;
    KnownVersions& m_versions;
    Objects& m_objects;
    const EndpointCapabilities m_capabilities;
    const std::size_t m_transfers; // at a time, in one completion
    const std::uint64_t m_memory;  // bytes, of what one completion sends at a time
    UploadRegistry m_registry;
    std::mutex m_mutex;                        // innermost
    std::set<std::string> m_unconfirmedAborts; // guarded by m_mutex; uploads of others whose abort got no answer
};

} // namespace storage::clients::s3
