#pragma once

#include <cstddef>
#include <cstdint>
#include <functional>
#include <list>
#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <unordered_map>

namespace storage::clients::s3
{

/// One upload that this client began. The store hears of it with the first part that is sent. Safe for concurrent
/// calls.
class Upload
{
public:
    struct Part
    {
        std::string tag;           ///< entity tag
        std::size_t size = 0;      ///< bytes
        std::string copiedVersion; ///< entity tag of the object that it was copied from; empty: it was sent
    };

    Upload(std::string key, std::string base)
        : m_key(std::move(key))
        , m_base(std::move(base))
    {
    }

    const std::string& key() const noexcept { return m_key; }

    /// Entity tag of the object that the new one is made from; empty: of none.
    const std::string& base() const noexcept { return m_base; }

    /// The store's own identifier.
    ///
    /// @param open  opens the upload at the store and returns its identifier; called once, unless it throws: whoever
    ///              comes next then tries again
    std::string storeId(const std::function<std::string()>& open);

    /// The store's own identifier; empty as long as nothing was sent.
    std::string storeIdIfOpen() const;

    void setPart(std::size_t index, Part part);
    std::optional<Part> part(std::size_t index) const;

    /// Whether an earlier request to end the upload was sent and its answer lost.
    bool endInDoubt() const;
    void setEndInDoubt();

private:
    const std::string m_key;
    const std::string m_base;
    std::mutex m_openingMutex;  // held while the store opens the upload, so that the others wait; before m_mutex
    mutable std::mutex m_mutex; // innermost; guards everything below
    std::string m_storeId;
    std::map<std::size_t, Part> m_parts; // by index
    bool m_endInDoubt = false;
};

/// The uploads that are open, and what has become of those that ended lately. Safe for concurrent calls.
class Uploads
{
public:
    Uploads();

    /// Begin one. @return its identifier, which no store makes
    std::string begin(const std::string& key, const std::string& base);

    /// @return the open upload
    /// @throws cloudprovider::ResourceNotFoundException when there is none of that identifier for the key
    std::shared_ptr<Upload> find(const std::string& key, const std::string& id) const;

    bool isOwn(const std::string& id) const { return id.starts_with(m_prefix); }

    /// Forget an open upload, and remember the version of the object that its parts now stand for.
    /// @param version  entity tag of the completed object; of the upload's base when it was aborted
    void finish(const std::string& id, const std::string& version);

    /// The identifier that this client gave an upload of the store; nothing when it is not one of its own.
    std::optional<std::string> ownIdOf(const std::string& storeId) const;

    /// The tag that a part goes by outside this client, from which versionOf() finds its object.
    static std::string partTag(const std::string& id, const std::string& tag) { return id + ':' + tag; }

    /// The entity tag of the object that a part is of: the tag itself, as getObjectParts() has it, or for a part of an
    /// upload what the upload has made. Nothing when the upload ended too long ago.
    std::optional<std::string> versionOf(const std::string& tag) const;

private:
    const std::string m_prefix; // of the identifiers of this instance
    mutable std::mutex m_mutex; // before an Upload's own; guards everything below
    std::uint64_t m_count = 0;
    std::unordered_map<std::string, std::shared_ptr<Upload>> m_open;
    std::unordered_map<std::string, std::string> m_finished; // entity tags
    std::list<std::string> m_finishedInOrder;
};

} // namespace storage::clients::s3
