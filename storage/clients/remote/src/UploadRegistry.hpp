#pragma once

#include "Upload.hpp"

#include <cstddef>
#include <cstdint>
#include <list>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <unordered_map>
#include <vector>

namespace storage::clients
{

using UploadPtr = std::shared_ptr<Upload>;

/// The open uploads of one client, and the outcome of those that ended recently. Safe for concurrent calls.
class UploadRegistry
{
public:
    UploadRegistry();

    /// Register a new upload.
    ///
    /// @param tag  of a part of the object that the new one is made from; empty: it is made from none
    /// @param sourceKey  see Upload::sourceKey()
    /// @return its id, which is different from every store's ids
    std::string begin(const std::string& key, const std::string& tag, const std::string& sourceKey);

    /// @return the open upload
    /// @throws cloudprovider::ResourceNotFoundException when the key has no open upload with this id
    UploadPtr find(const std::string& key, const std::string& id) const;

    std::vector<UploadPtr> open() const;

    bool isOwn(const std::string& id) const { return id.starts_with(m_prefix); }

    /// Remove an upload that has ended, and remember the version of the object that its parts belong to now.
    /// @param version  tag of the completed object; of the upload's base when it was aborted
    void finish(const std::string& id, const std::string& version);

    /// This client's id for an upload, given the store's id; nothing when this client did not create the upload.
    std::optional<std::string> ownIdOf(const std::string& storeId) const;

    /// The tag of the object that a part belongs to. A tag from getObjectParts() is that tag; the tag of an uploaded
    /// part stands for the object that the upload made. Nothing when the upload ended too long ago.
    std::optional<std::string> versionOf(const std::string& partTag) const;

private:
    const std::string m_prefix; // of the ids of this instance
    mutable std::mutex m_mutex; // innermost; guards everything below
    std::uint64_t m_count = 0;
    std::unordered_map<std::string, UploadPtr> m_open;
    std::unordered_map<std::string, std::string> m_finished; // tags of objects
    std::list<std::string> m_finishedInOrder;
};

} // namespace storage::clients
