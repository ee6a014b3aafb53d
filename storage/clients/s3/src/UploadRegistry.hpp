#pragma once

#include "PartSpool.hpp"
#include "UploadPlan.hpp"

#include <storage/clients/common/VersionPins.hpp>

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <exception>
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

/// One upload that this client created. It is opened at the store with the first part that is sent. Safe for concurrent
/// calls.
class Upload
{
public:
    struct Part
    {
        PartPlace place = PartPlace::Uploaded;
        std::string tag;          ///< identifies what was last uploaded for its index; of Uploaded: the entity tag
        std::size_t size = 0;     ///< bytes
        std::uint64_t offset = 0; ///< of Object: where it begins in the stored object
        Version source = {};      ///< of Object: the stored object's version
    };

    /// @param base   entity tag of the object that the new one replaces parts of; empty: there is none, or it is
    ///               unknown
    /// @param isNew  there is none
    Upload(std::string key, std::string base, bool isNew)
        : m_key(std::move(key))
        , m_base(std::move(base))
        , m_isNew(isNew)
    {
    }

    const std::string& key() const noexcept { return m_key; }

    const std::string& base() const noexcept { return m_base; }
    bool isNew() const noexcept { return m_isNew; }

    /// The store's own id of the upload, which is opened first if it is not open. If another thread is opening it, wait
    /// for that. If that fails, fail with the same exception, so that the threads do not fail one after the other.
    ///
    /// @param open  opens the upload at the store and returns its id; not called again after it has succeeded
    std::string ensureStoreId(const std::function<std::string()>& open);

    /// The same, without opening; empty if the upload is not open at the store. Waits while it is being opened.
    std::string storeId() const;

    void setPart(std::size_t index, Part part);
    std::optional<Part> part(std::size_t index) const;

    /// Keep a part's bytes in the spool.
    /// @return its tag
    std::string spoolPart(std::size_t index, const std::string& bytes);
    void readSpooled(const PlannedBytes& bytes, char* target) const
    {
        m_spool.read(bytes.index, bytes.offset, target, bytes.size);
    }

    /// Remember that a planned part is in the store, for a retry of the completion.
    void recordDone(const PlannedPart& part, const std::string& tag);
    /// @return its entity tag; nothing when it is not in the store yet
    std::optional<std::string> doneTag(const PlannedPart& part) const;
    std::size_t doneCount() const;
    void forgetDone();

    /// Whether an earlier completion request was sent and its response was lost.
    bool isOutcomeUnknown() const;
    void setOutcomeUnknown();

private:
    const std::string m_key;
    const std::string m_base;
    const bool m_isNew;
    PartSpool m_spool{minPartSize};
    mutable std::mutex m_openingMutex;   // held while the upload is opened; taken before m_mutex
    std::string m_storeId;               // guarded by m_openingMutex
    std::exception_ptr m_openingFailure; // guarded by m_openingMutex; the last one
    std::atomic<unsigned> m_failedOpenings = 0;
    mutable std::mutex m_mutex;                                        // innermost; guards everything below
    std::map<std::size_t, Part> m_parts;                               // by index
    std::map<std::size_t, std::pair<PlannedPart, std::string>> m_done; // by number; cleared when a part is uploaded
    std::uint64_t m_spoolCount = 0;
    bool m_isOutcomeUnknown = false;
};

/// The open uploads of one client, and the outcome of those that ended recently. Safe for concurrent calls.
class UploadRegistry
{
public:
    UploadRegistry();

    /// Register a new upload.
    ///
    /// @param tag  of a part of the object that the new one is made from; empty: it is made from none
    /// @return its id, which is different from every store's ids
    std::string begin(const std::string& key, const std::string& tag);

    /// @return the open upload
    /// @throws cloudprovider::ResourceNotFoundException when the key has no open upload with this id
    std::shared_ptr<Upload> find(const std::string& key, const std::string& id) const;

    bool isOwn(const std::string& id) const { return id.starts_with(m_prefix); }

    /// Remove an upload that has ended, and remember the version of the object that its parts belong to now.
    /// @param version  entity tag of the completed object; of the upload's base when it was aborted
    void finish(const std::string& id, const std::string& version);

    /// This client's id for an upload, given the store's id; nothing when this client did not create the upload.
    std::optional<std::string> ownIdOf(const std::string& storeId) const;

    /// The tag of a part outside this client. versionOf() finds the part's object by it.
    static std::string partTag(const std::string& id, const std::string& tag) { return id + ':' + tag; }

    /// The entity tag of the object that a part belongs to. A tag from getObjectParts() is that entity tag; the tag of
    /// an uploaded part stands for the object that the upload made. Nothing when the upload ended too long ago.
    std::optional<std::string> versionOf(const std::string& tag) const;

private:
    const std::string m_prefix; // of the ids of this instance
    mutable std::mutex m_mutex; // innermost; guards everything below
    std::uint64_t m_count = 0;
    std::unordered_map<std::string, std::shared_ptr<Upload>> m_open;
    std::unordered_map<std::string, std::string> m_finished; // entity tags
    std::list<std::string> m_finishedInOrder;
};

} // namespace storage::clients::s3
