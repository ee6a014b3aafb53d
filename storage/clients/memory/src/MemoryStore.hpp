#pragma once

#include "SharedBytes.hpp"

#include <storage/clients/common/VersionPins.hpp>
#include <storage/clients/memory/MemoryClient.hpp>

#include <cstddef>
#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <optional>
#include <shared_mutex>
#include <string>
#include <utility>
#include <vector>

namespace storage::clients
{

/// An object's bytes and the sizes of its parts.
struct ObjectContent
{
    struct Part
    {
        std::uint64_t tag = 0;
        std::uint64_t size = 0;
    };

    SharedBytes bytes;
    std::vector<Part> parts;
};

/// The objects and uploads of one or several MemoryClients.
///
/// Safe for concurrent calls on one instance. Contents are complete when they are passed in, and shared when they are
/// returned, so that only maps are accessed under the lock.
class MemoryStore
{
public:
    using Time = boost::posix_time::ptime;
    using RequiredVersion = std::optional<std::string>;

    MemoryStore();

    cloudprovider::ObjectInfo info(const std::string& key) const;

    /// @param token  as in listPage()
    std::vector<cloudprovider::ObjectEntry> list(const std::string& prefix, std::string& token,
        const cloudprovider::ListOptions& options, std::size_t pageSize) const;

    // The functions that change an object compare its version with `required`, see checkRequiredVersion().

    /// @return the new version's tag
    std::string put(
        const std::string& key, SharedBytes bytes, Time now, const RequiredVersion& required = std::nullopt);

    /// @return whether the object existed
    bool remove(const std::string& key, const RequiredVersion& required = std::nullopt);

    /// The object's current content and its tag; null when there is no such object.
    std::pair<std::shared_ptr<const ObjectContent>, std::string> find(const std::string& key) const;

    /// @throws ResourceNotFoundException when there is no such object
    std::pair<std::vector<cloudprovider::PartInfo>, Version> parts(const std::string& key) const;

    std::vector<std::string> keys() const;

    /// @param base  tag of the version that the new one is made from; empty: it is made from none
    /// @return the upload id
    std::string openUpload(const std::string& key, const std::string& tag, const std::string& base, Time now);

    /// @throws ResourceNotFoundException when the key has no such upload
    void checkUpload(const std::string& key, const std::string& uploadId) const;

    /// Store one part. @return its tag @throws ResourceNotFoundException when the key has no such upload
    ///
    /// @param source  tag of the object that it is copied from; 0: it was sent
    std::string addPart(const std::string& key, const std::string& uploadId, std::size_t index, SharedBytes bytes,
        std::uint64_t source = 0);

    /// Copy one part of the object, see CloudClient::copyPart().
    std::string copyPart(const std::string& key, const std::string& uploadId, const cloudprovider::PartInfo& part);

    void abort(const std::string& key, const std::string& uploadId);

    /// Fails when the object is another version than the one that parts were copied from. If none was copied, it fails
    /// when the object is neither the upload's base nor made from it.
    ///
    /// @param descends  tells whether the first tag is of a version that the caller made from the second one's; called
    ///                  with the store's lock held
    /// @return the new version
    Version complete(const std::string& key, const std::string& uploadId,
        const std::vector<cloudprovider::PartInfo>& parts, Time now, const RequiredVersion& required,
        const std::function<bool(const std::string& stored, const std::string& opened)>& descends);

    std::vector<OpenUpload> openUploads() const;

private:
    // An empty object has no content, which saves an allocation for each of, say, a million empty objects.
    struct Object
    {
        std::uint64_t tag = 0;
        std::uint64_t size = 0;
        Time lastModified;
        std::shared_ptr<const ObjectContent> content; // null: no bytes
    };

    struct SentBytes
    {
        std::uint64_t tag = 0;
        SharedBytes bytes;
        std::uint64_t source = 0; // tag of the object that it was copied from; 0: it was sent
    };

    struct Upload
    {
        std::string key;
        std::string tag;
        std::string base; // tag of an object; may be empty
        Time created;
        std::map<std::size_t, SentBytes> parts; // by index
    };

    using Objects = std::map<std::string, Object>;
    using Uploads = std::map<std::string, Upload>; // by upload id; ids ascend in the order in which uploads are opened

    class Cursor;

    std::string text(std::uint64_t number) const;
    std::string tagOf(const std::string& key) const; // with m_mutex held; empty: there is no such object
    std::vector<cloudprovider::PartInfo> partsOf(const Object& object) const;

    // With m_mutex held:
    Objects::const_iterator objectAt(const std::string& key) const;
    Uploads::const_iterator uploadAt(const std::string& key, const std::string& uploadId) const;

    const std::uint64_t m_nonce; // makes this store's tags and upload ids different from those of other stores

    mutable std::shared_mutex m_mutex; // innermost: no code of a caller runs while it is held
    std::uint64_t m_lastNumber = 0;    // guarded by m_mutex; tags and upload ids share one numbering
    Objects m_objects;                 // guarded by m_mutex
    Uploads m_uploads;                 // guarded by m_mutex
};

} // namespace storage::clients
