#pragma once

#include "PartBytes.hpp"
#include "PartGroup.hpp"
#include "PartSpool.hpp"
#include "Retry.hpp"
#include "UploadPlan.hpp"

#include <storage/clients/common/ObjectUploader.hpp>
#include <storage/clients/common/VersionPins.hpp>

#include <condition_variable>
#include <cstddef>
#include <cstdint>
#include <exception>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <utility>

namespace storage::clients
{

/// What a client knows of one upload that it created. It is opened at the store with the first part that is sent. Safe
/// for concurrent calls.
class Upload
{
public:
    enum class Sending
    {
        Queued,
        Running,
        Cancelled ///< it runs, but its bytes are not needed any more
    };

    struct Part
    {
        PartPlace place = PartPlace::Uploaded;
        std::size_t size = 0;         ///< bytes
        std::uint64_t offset = 0;     ///< of Object: where it begins in the stored object; else in the new one
        Version source = {};          ///< of Object: the stored object's version
        std::uint64_t spooled = 0;    ///< of Spooled: its position in the spool
        PartGroup group = {};         ///< that it was sent with, or is on the way with; without a number: it is not
        std::string storeTag = {};    ///< of the first part of a group: the store's; empty: it is on the way, or lost
        std::exception_ptr failure{}; ///< why its bytes are lost; null: they are not
        std::uint64_t generation = 0; ///< set when it is recorded; tells uploads of the same part apart
        Sending sending = Sending::Queued;  ///< of the first part of a group on the way
        std::shared_ptr<PartBytes> bytes{}; ///< to be sent, of a queued group of one
    };

    /// @param base   tag of the object that the new one replaces parts of; empty: there is none, or it is unknown
    /// @param isNew  there is none
    Upload(std::string id, std::string key, std::string base, bool isNew, std::string sourceKey)
        : m_id(std::move(id))
        , m_key(std::move(key))
        , m_sourceKey(std::move(sourceKey))
        , m_base(std::move(base))
        , m_isNew(isNew)
    {
    }

    const std::string& id() const noexcept { return m_id; }
    const std::string& key() const noexcept { return m_key; }
    const std::string& base() const noexcept { return m_base; }
    bool isNew() const noexcept { return m_isNew; }
    /// The key of the object that its copied ranges come from; usually its own key.
    const std::string& sourceKey() const noexcept { return m_sourceKey; }
    PartSpool& spool() noexcept { return m_spool; }
    Outage& outage() noexcept { return m_outage; }

    /// The store's own id of the upload, which is opened first if it is not open. If another thread is opening it, wait
    /// for that. If that fails, try it again; the outage makes this fail at once if the store cannot be reached.
    ///
    /// @param open  opens the upload at the store and returns its id; not called again after it has succeeded
    std::string ensureStoreId(const std::function<std::string()>& open);

    /// The same, without opening; empty if the upload is not open at the store. Waits while it is being opened.
    std::string storeId() const;

    /// Where the bytes of parts with PartPlace::Source come from; null: there are none. Borrowed.
    const ObjectUploader::Source* source() const;
    void setSource(const ObjectUploader::Source* source);

    /// The metadata of the object that the upload makes; null before it is opened at the store.
    std::shared_ptr<const WrittenMetadata> metadata() const;
    void setMetadata(std::shared_ptr<const WrittenMetadata> metadata);

    /// RemoteStore::partEnds() of the version that ranges are copied from, which is looked up once.
    std::vector<std::uint64_t> sourceEnds(
        const Version& source, const std::function<std::vector<std::uint64_t>()>& lookUp);
    void forgetSourceEnds();

    /// The tag of a part outside the client.
    std::string tagOf(std::size_t index, const Part& part) const;

    std::optional<Part> part(std::size_t index) const;

    /// Record a part that is not on the way, in place of an earlier one with this index. If that is on the way, cancel
    /// the transfer of its group, and wait until it has ended.
    /// @return its tag
    /// @throws cloudprovider::UnknownErrorException if dropUnsent() has cleared the spool since its space was allocated
    std::string setPart(std::size_t index, Part part);

    /// The group that a part belongs to. It has no number if the part is to wait for the completion.
    PartGroup groupOf(const cloudprovider::PartInfo& part, const StoreAbilities& store) const;

    /// A part that is on the way.
    struct Begun
    {
        std::string tag;
        std::uint64_t generation;
    };

    /// Record that a part, which is a group of its own, is on the way. Replaces as setPart(). Waits while `maxSending`
    /// groups are on the way.
    ///
    /// Its number in the store leaves enough numbers for the parts before it, whatever they become.
    /// @return nullopt: there is no such number, and nothing was recorded
    std::optional<Begun> beginSending(const cloudprovider::PartInfo& part, const PartGroup& group,
        const std::shared_ptr<PartBytes>& bytes, const StoreAbilities& store, std::size_t maxSending);

    /// The same for a group of several parts, which stay in the spool: when one of them is replaced, the group counts
    /// as not sent.
    /// @return the generation of its first part; nullopt also: parts are missing, too small or on the way already, or
    ///         are too large together
    std::optional<std::uint64_t> beginSendingSpooled(
        const PartGroup& group, const StoreAbilities& store, std::size_t maxSending);

    /// Take the bytes of the group with this first part, to send them. Null: they are in the spool.
    /// @return nullopt: the group was cancelled
    std::optional<std::shared_ptr<PartBytes>> startSending(std::size_t first, std::uint64_t generation);

    /// The part of the store that a group in the spool becomes, whose transfer has started.
    PlannedPart spooledPart(const PartGroup& group) const;

    /// Whether the transfer of a group that has started was cancelled.
    bool isCancelled(std::size_t first) const;

    /// Record how the transfer of a group has ended, after startSending() has returned a value.
    /// @param spooled  of a group of one: position of its bytes in the spool; nullopt: they are lost, or not needed
    void setSent(std::size_t first, std::string storeTag) noexcept;
    void setFailed(
        std::size_t first, const std::exception_ptr& failure, const std::optional<std::uint64_t>& spooled) noexcept;

    /// The store's tag of the group that a part was sent with; empty: it was not.
    std::string storeTag(std::size_t index) const;

    /// Throw the first failure of a part since the last report.
    void reportFailure();
    void forgetUnreported();

    /// Wait until no part is on the way.
    void waitUntilIdle();

    /// Whether other groups are on the way than those with these numbers.
    /// @param kept  first parts by number
    bool isSendingOthers(const std::map<std::size_t, std::size_t>& kept) const;

    /// Cancel all transfers, wait until they have ended, and clear the spool. What was cancelled, or was in the spool,
    /// counts as lost.
    void dropUnsent();

    /// Remember that a planned part is in the store, for a retry of the completion.
    void recordDone(const PlannedPart& part, const std::string& tag);
    /// @return its tag; nothing when it is not in the store yet
    std::optional<std::string> doneTag(const PlannedPart& part) const;
    void forgetDone();

    /// Whether an earlier completion request was sent and its response was lost.
    bool isOutcomeUnknown() const;
    void setOutcomeUnknown();

private:
    // These require m_mutex.
    void cancel(std::size_t index);
    bool canSendSpooled(const PartGroup& group, const StoreAbilities& store) const;
    void replacePart(std::size_t index, Part part);
    void ungroup(const Part& member) noexcept;
    bool isOnTheWay(std::size_t index) const;
    bool hasRoom(const PartGroup& group, std::uint64_t begin, std::uint64_t end, const StoreAbilities& store) const;

    const std::string m_id;
    const std::string m_key;
    const std::string m_sourceKey;
    const std::string m_base;
    const bool m_isNew;
    PartSpool m_spool;
    Outage m_outage;
    mutable std::mutex m_openingMutex; // held while the upload is opened; taken before m_mutex
    std::string m_storeId;             // guarded by m_openingMutex
    mutable std::mutex m_mutex;        // taken before those of the spool and the buffers; guards everything below
    std::condition_variable m_changed; // a transfer has ended
    const ObjectUploader::Source* m_source = nullptr;
    std::shared_ptr<const WrittenMetadata> m_metadata;
    std::pair<std::string, std::vector<std::uint64_t>> m_sourceEnds; // of the version with this tag
    std::map<std::size_t, Part> m_parts;                             // by index
    std::size_t m_sending = 0;                                       // groups that are on the way
    std::uint64_t m_generation = 0;
    std::exception_ptr m_unreported; // of the first transfer that failed since the last report
    std::map<std::size_t, std::pair<PlannedPart, std::string>> m_done; // by number; cleared when a part is uploaded
    bool m_isOutcomeUnknown = false;
};

} // namespace storage::clients
