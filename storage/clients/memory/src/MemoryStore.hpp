#pragma once

#include "SharedBytes.hpp"

#include <storage/clients/memory/MemoryClient.hpp>

#include <cstddef>
#include <cstdint>
#include <map>
#include <memory>
#include <shared_mutex>
#include <string>
#include <vector>

namespace storage::clients
{

/// What an object consists of: its bytes and where its parts end.
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

/// What a MemoryClient keeps: objects and uploads. Knows no counts, no faults and no streams.
///
/// Safe for concurrent calls on one instance. Contents come in finished and go out shared, so that nothing but maps is
/// touched under the lock.
class MemoryStore
{
public:
    using Time = boost::posix_time::ptime;

    MemoryStore();

    cloudprovider::ObjectInfo info(const std::string& key) const;

    /// @param token  as listPage() has it
    std::vector<cloudprovider::ObjectEntry> list(const std::string& prefix, std::string& token,
        const cloudprovider::ListOptions& options, std::size_t pageSize) const;

    void put(const std::string& key, SharedBytes bytes, Time now);

    /// @return whether there was one
    bool remove(const std::string& key);

    /// What the object consists of now; null when there is no such object.
    std::shared_ptr<const ObjectContent> find(const std::string& key) const;

    /// @throws ResourceNotFoundException when there is no such object
    std::vector<cloudprovider::PartInfo> parts(const std::string& key) const;

    std::vector<std::string> keys() const;

    /// @return the identifier
    std::string openUpload(const std::string& key, const std::string& tag, Time now);

    /// @throws ResourceNotFoundException when the key has no such upload
    void checkUpload(const std::string& key, const std::string& uploadId) const;

    /// Keep one part. @return its tag @throws ResourceNotFoundException when the key has no such upload
    std::string addPart(const std::string& key, const std::string& uploadId, std::size_t index, SharedBytes bytes);

    /// Take one part from the object, as CloudClient::copyPart() has it.
    std::string copyPart(const std::string& key, const std::string& uploadId, const cloudprovider::PartInfo& part);

    void abort(const std::string& key, const std::string& uploadId);

    void complete(const std::string& key, const std::string& uploadId,
        const std::vector<cloudprovider::PartInfo>& parts, Time now);

    std::vector<OpenUpload> openUploads() const;

private:
    // One allocation less for each of a million empty objects: those have no content.
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
    };

    struct Upload
    {
        std::string key;
        std::string tag;
        Time created;
        std::map<std::size_t, SentBytes> parts; // by index
    };

    using Objects = std::map<std::string, Object>;
    using Uploads = std::map<std::string, Upload>; // by identifier, which ascend as uploads are opened

    class Cursor;

    std::string text(std::uint64_t number) const;
    std::vector<cloudprovider::PartInfo> partsOf(const Object& object) const;

    // With m_mutex held:
    Objects::const_iterator objectAt(const std::string& key) const;
    Uploads::const_iterator uploadAt(const std::string& key, const std::string& uploadId) const;

    const std::uint64_t m_nonce; // makes this store's tags and identifiers unlike those of another

    mutable std::shared_mutex m_mutex; // innermost: nothing of others runs while it is held
    std::uint64_t m_lastNumber = 0;    // guarded by m_mutex; tags and uploads are numbered through
    Objects m_objects;                 // guarded by m_mutex
    Uploads m_uploads;                 // guarded by m_mutex
};

} // namespace storage::clients
