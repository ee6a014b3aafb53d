#pragma once

#include "KnownVersions.hpp"
#include "Objects.hpp"
#include "Uploads.hpp"

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
class MultipartUploads
{
public:
    MultipartUploads(
        Requester& requester, KnownVersions& versions, Objects& objects, const EndpointCapabilities& capabilities)
        : m_requester(requester)
        , m_versions(versions)
        , m_objects(objects)
        , m_capabilities(capabilities)
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
    struct Plan
    {
        std::vector<std::pair<std::size_t, std::string>> parts; ///< numbers and entity tags
        std::uint64_t size = 0;                                 ///< bytes of the new object
        std::string newTag;   ///< that the new object will have; empty: not known beforehand
        std::string replaces; ///< entity tag of the object that it is made from; empty: whatever is there
    };

    std::string openAtStore(Upload& upload);
    std::string sendBody(Upload& upload, const std::string& id, const cloudprovider::PartInfo& part, RequestBody& body,
        const std::string& copiedVersion = {});
    std::string readSource(const std::string& key, const cloudprovider::PartInfo& part, const Version& source);
    Version requireSource(const cloudprovider::PartInfo& part, const S3Request& request);
    Plan plan(const Upload& upload, const std::string& id, const std::vector<cloudprovider::PartInfo>& parts);
    std::string endUpload(Upload& upload, const Plan& plan);
    bool isOpenAtStore(const Upload& upload);
    void abortOfOthers(const std::string& key, const std::string& storeId);

    Requester& m_requester;
    KnownVersions& m_versions;
    Objects& m_objects;
    const EndpointCapabilities m_capabilities;
    Uploads m_uploads;
    std::mutex m_mutex;                    // innermost
    std::set<std::string> m_abortsInDoubt; // guarded by m_mutex; uploads of others whose abort got no answer
};

} // namespace storage::clients::s3
