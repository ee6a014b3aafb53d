#pragma once

#include "Objects.hpp"
#include "UploadPlan.hpp"
#include "UploadRegistry.hpp"

#include "protocol/Requester.hpp"

#include <storage/clients/common/RequiredVersions.hpp>
#include <storage/clients/common/UploadInventory.hpp>
#include <storage/clients/common/VersionPins.hpp>
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
/// Parts that the store accepts unchanged are sent immediately. Copies, and small parts of a file that had content
/// before, are only recorded. The completion knows their neighbours, combines them into few requests and runs several
/// at a time. After a transient failure the parts it has transferred remain, so that a retry transfers only the missing
/// ones.
class MultipartUploads
{
public:
    MultipartUploads(Requester& requester, VersionPins& pins, const RequiredVersions& required, Objects& objects,
        const S3Settings& settings)
        : m_requester(requester)
        , m_pins(pins)
        , m_required(required)
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
    /// What a completion will do.
    struct Completion
    {
        UploadPlan plan;
        Version source;          ///< of the object that unchanged bytes are copied from; no tag: nothing is copied
        std::string replaces;    ///< entity tag of the object that it may replace; empty: any
        bool mustCreate = false; ///< it may replace none
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
    std::optional<bool> isOpenAtStore(const Upload& upload);
    void abortForeignUpload(const std::string& key, const std::string& storeId);

    Requester& m_requester;
    VersionPins& m_pins;
    const RequiredVersions& m_required;
    Objects& m_objects;
    const EndpointCapabilities m_capabilities;
    const std::size_t m_transfers; // maximum requests at a time in one completion
    const std::uint64_t m_memory;  // bytes that one completion sends at a time; a larger part is sent alone
    UploadRegistry m_registry;
    std::mutex m_mutex;                        // innermost
    std::set<std::string> m_unconfirmedAborts; // guarded by m_mutex; uploads of others whose abort got no response
};

} // namespace storage::clients::s3
