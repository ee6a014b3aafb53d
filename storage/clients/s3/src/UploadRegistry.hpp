#pragma once

#include "KnownVersions.hpp"
#include "PartSpool.hpp"
#include "UploadPlan.hpp"

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
#include <utility>

namespace storage::clients::s3
{

/// One upload that this client began. The store hears of it with the first part that is sent. Safe for concurrent
/// calls.
class Upload
{
public:
    struct Part
    {
        PartPlace place = PartPlace::Uploaded;
        std::string tag;          ///< tells what was last sent for its index; of Store: the entity tag
        std::size_t size = 0;     ///< bytes
        std::uint64_t offset = 0; ///< of Object: where it begins in the stored object
        Version source = {};      ///< of Object
    };

    /// @param base   entity tag of the object that the new one is made from; empty: unknown, or of none
    /// @param isNew  it is made from none
    Upload(std::string key, std::string base, bool isNew)
        : m_key(std::move(key))
        , m_base(std::move(base))
        , m_isNew(isNew)
    {
    }

    const std::string& key() const noexcept { return m_key; }

    const std::string& base() const noexcept { return m_base; }
    bool isNew() const noexcept { return m_isNew; }

    /// The store's own identifier.
    ///
    /// @param open  opens the upload at the store and returns its identifier; called once, unless it throws: whoever
    ///              comes next then tries again
    std::string ensureStoreId(const std::function<std::string()>& open);

    /// The same, without opening; empty as long as the store has not heard of the upload. Waits while it is opened.
    std::string storeId() const;

    void setPart(std::size_t index, Part part);
    std::optional<Part> part(std::size_t index) const;

    /// Keep a part's bytes here.
    /// @return its tag
    std::string spoolPart(std::size_t index, const std::string& bytes);
    void readSpooled(const PlannedBytes& bytes, char* target) const
    {
        m_spool.read(bytes.index, bytes.offset, target, bytes.size);
    }

    /// Remember what the store has made of a planned part, for the case that the completion fails and is repeated.
    void recordDone(const PlannedPart& part, const std::string& tag);
    /// @return its entity tag; nothing when it is still to be made
    std::optional<std::string> doneTag(const PlannedPart& part) const;
    std::size_t doneCount() const;
    void forgetDone();

    /// Whether an earlier request to end the upload was sent and its answer lost.
    bool isOutcomeUnknown() const;
    void setOutcomeUnknown();

private:
    const std::string m_key;
    const std::string m_base;
    const bool m_isNew;
    PartSpool m_spool{minPartSize};
    mutable std::mutex m_openingMutex;   // held while the store opens the upload; before m_mutex
    std::string m_storeId;               // guarded by m_openingMutex
    mutable std::mutex m_mutex;          // innermost; guards everything below
    std::map<std::size_t, Part> m_parts; // by index
    std::map<std::size_t, std::pair<PlannedPart, std::string>> m_done; // by number; as long as no part is sent anew
    std::uint64_t m_spoolCount = 0;
    bool m_isOutcomeUnknown = false;
};

/// The uploads that are open, and what has become of those that ended lately. Safe for concurrent calls.
class UploadRegistry
{
public:
    UploadRegistry();

    /// Begin one that is made from the object of which a part has that tag; empty: from none.
    /// @return its identifier, which no store makes
    std::string begin(const std::string& key, const std::string& tag);

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
    mutable std::mutex m_mutex; // innermost; guards everything below
    std::uint64_t m_count = 0;
    std::unordered_map<std::string, std::shared_ptr<Upload>> m_open;
    std::unordered_map<std::string, std::string> m_finished; // entity tags
    std::list<std::string> m_finishedInOrder;
};

} // namespace storage::clients::s3
