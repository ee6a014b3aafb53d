#pragma once

#include <storage/clients/common/PinnedVersions.hpp>

#include <condition_variable>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <list>
#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <string_view>
#include <unordered_map>
#include <utility>
#include <vector>

namespace storage::clients
{

/// What a store keeps with an object besides its bytes, such as its type: names and values that the store defines.
using ObjectMetadata = std::vector<std::pair<std::string, std::string>>;

/// One version of an object.
struct Version
{
    std::string tag; ///< ObjectInfo::tag
    std::uint64_t size = 0;
    std::shared_ptr<const ObjectMetadata> metadata = nullptr; ///< null: the store keeps none, or they are not known
};

/// Remembers for each key which version of its object was opened, so that no reader sees a mixture of two versions.
///
/// getObjectParts() pins the version that it returns. Ranges are then read from this version or fail. The pin moves
/// only when the key is opened again, and when a write of this client has succeeded. A write with an unknown outcome
/// and a deletion leave the pin where it is: until the key is opened again, reads fail if the object is another one.
/// A successful write also pins a key that was never opened, because a file may be read through the stream that has
/// created it. A key that this client has neither opened nor written has no pin, and its object is read as it is.
///
/// At most `capacity` keys are pinned. Beyond that, the pin of the least recently used key is evicted, and reads of
/// this key fail until it is opened again or written. So a client that stores `capacity` new objects evicts the pin of
/// a file that is open and idle meanwhile: its reads fail, but never deliver another version. Evicted keys are
/// remembered in a bitmap of their hashes, which is never cleared, so some keys without a pin may be refused, too: one
/// in ten after 100,000 evictions. Safe for concurrent calls.
class VersionPins
{
    struct Activity
    {
        std::size_t users = 0;    ///< existing Openings and Writes
        std::size_t writers = 0;  ///< existing Writes
        std::uint64_t stored = 0; ///< Writes that have succeeded
        Version last;             ///< stored by the last of them
    };
    using Activities = std::map<std::string, Activity>;

public:
    /// @param capacity  keys; more than files are open at the same time, and new ones stored meanwhile
    explicit VersionPins(std::size_t capacity = 16'384)
        : m_capacity(capacity)
    {
    }

    /// The time in which a version is fetched, to pin it.
    class Opening
    {
    public:
        Opening(VersionPins& pins, const std::string& key);
        Opening(const Opening&) = delete;
        Opening& operator=(const Opening&) = delete;
        ~Opening();

        /// Pin the version that was fetched. If a write of this client has succeeded meanwhile, pin the version that it
        /// has stored, as if the key had been opened before.
        void opened(const Version& version);

    private:
        VersionPins& m_pins;
        Activities::iterator m_activity;
        std::uint64_t m_storedBefore = 0;
    };

    /// The time in which this client writes the key. If it ends without succeeded(), the pin stays.
    class Write
    {
    public:
        Write(VersionPins& pins, const std::string& key);
        Write(const Write&) = delete;
        Write& operator=(const Write&) = delete;
        ~Write();

        /// Report the object's new version, which becomes the pinned one.
        void succeeded(const Version& version);

    private:
        VersionPins& m_pins;
        Activities::iterator m_activity;
        bool m_hasSucceeded = false;
    };

    /// The time in which this client may delete the object.
    class Deletion
    {
    public:
        Deletion(VersionPins& pins, const std::string& key)
            : m_pins(pins)
            , m_key(key)
        {
        }
        Deletion(const Deletion&) = delete;
        Deletion& operator=(const Deletion&) = delete;
        ~Deletion() { m_pins.doubt(m_key); }

    private:
        VersionPins& m_pins;
        const std::string m_key;
    };

    /// Read from the pinned version.
    ///
    /// @param tryRead  reads from this version of the object, or from any if there is none, or throws. It returns false
    ///                 with nothing delivered if the object is not this version. Called without a lock, and again when
    ///                 a write of this client has moved the pin meanwhile.
    /// @throws UnknownErrorException when the object is another version, or its pin was evicted; TransientException
    ///         when it is another version and a write of this client has been in progress for a second since: its
    ///         result may be that version
    void read(const std::string& key, const std::function<bool(const std::optional<Version>& version)>& tryRead);

    /// The pinned version. Nothing: there is no pin, or it was evicted.
    std::optional<Version> pinned(const std::string& key);

    /// The same, unless a Deletion or a Write that has not succeeded may have replaced the version since it was pinned.
    std::optional<PinnedVersion> certain(const std::string& key);

    /// Forget the metadata of a key whose object this client has deleted: what is stored next is another file. The pin
    /// stays otherwise.
    void deleted(const std::string& key);

    /// Whether the version tagged `stored` is the one tagged `opened`, or was written by this client to a file opened
    /// at that version.
    bool descends(const std::string& key, const std::string& stored, const std::string& opened);

private:
    struct Pin
    {
        std::string key;
        std::string opened; ///< tag
        Version current;
        std::uint64_t moves = 0; ///< m_moves when `current` was set; kept when the same version is opened again
        bool isDoubtful = false; ///< this client may have replaced or deleted the object since
    };
    using Pins = std::list<Pin>;

    void doubt(const std::string& key);

    // All of these require m_mutex.
    Activities::iterator beginActivity(const std::string& key);
    void endActivity(Activities::iterator activity);
    bool isWritten(const std::string& key) const;
    void pin(const std::string& key, const std::string& opened, const Version& current);
    const Pin* find(const std::string& key);
    bool wasEvicted(const std::string& key) const;

    const std::size_t m_capacity;
    std::mutex m_mutex;                   // innermost; guards everything below
    std::condition_variable m_writeEnded; // or has succeeded
    Activities m_activities;              // one for each key that is being opened or written
    Pins m_pins;                          // the most recently used first
    std::unordered_map<std::string_view, Pins::iterator> m_byKey;
    std::uint64_t m_moves = 0;   // how often any pin was set
    std::vector<bool> m_evicted; // by hash of the key; empty until the first pin is evicted
};

} // namespace storage::clients
