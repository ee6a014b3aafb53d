#pragma once

#include <cstddef>
#include <cstdint>
#include <list>
#include <map>
#include <mutex>
#include <optional>
#include <string>
#include <unordered_map>

namespace storage::clients::s3
{

/// One version of an object, as the store tells them apart.
struct Version
{
    std::string tag; ///< entity tag, without quotes
    std::uint64_t size = 0;
};

/// Remembers per key which version of an object its reader has opened, and what this process has made of it since.
///
/// Ranges are read from the version that was opened, so that no reader ever sees a mixture of two. A version that this
/// process itself has written takes the place of the one before. The memory is bounded: of more than `capacity` keys
/// the ones not used for longest are forgotten, and are then read as they stand. Safe for concurrent calls.
class KnownVersions
{
    struct Activity
    {
        std::size_t watchers = 0;   ///< Observations and Writes alive
        std::size_t writers = 0;    ///< Writes alive
        std::uint64_t finished = 0; ///< Writes ended
    };
    using Activities = std::map<std::string, Activity>;

public:
    explicit KnownVersions(std::size_t capacity)
        : m_capacity(capacity)
    {
    }

    /// Watches, as long as it lives, whether this process writes the key meanwhile: what was found out about the object
    /// is then already old, and a version that is gone has not been taken away by somebody else.
    class Observation
    {
    public:
        Observation(KnownVersions& versions, const std::string& key);
        Observation(const Observation&) = delete;
        Observation& operator=(const Observation&) = delete;
        ~Observation();

        bool sawWrite() const;

        /// Remember the version as the one that was opened. One that was already old is forgotten instead.
        void opened(const Version& version);

    private:
        bool sawWriteLocked() const;

        KnownVersions& m_versions;
        Activities::iterator m_activity;
        std::uint64_t m_finishedBefore = 0;
        bool m_beganAmidWrites = false;
    };

    /// One change of the key by this process. What is known of the object is forgotten at its end, unless it said what
    /// the object is now.
    class Write
    {
    public:
        Write(KnownVersions& versions, const std::string& key);
        Write(const Write&) = delete;
        Write& operator=(const Write&) = delete;
        ~Write();

        /// Say that the object is this now.
        void succeeded(const Version& version);

        /// Say that the object is what it was.
        void changedNothing() noexcept { m_settled = true; }

    private:
        KnownVersions& m_versions;
        Activities::iterator m_activity;
        bool m_settled = false;
    };

    /// The version to read: what was opened, or what this process has written since. Nothing: any.
    std::optional<Version> current(const std::string& key);

    /// Whether a file that was opened at the tag `opened` may, as far as this process knows, be stored under `stored`
    /// now: it is that version, or what this process made of it.
    bool descends(const std::string& key, const std::string& stored, const std::string& opened);

private:
    struct Known
    {
        std::string opened; ///< tag
        Version current;
        std::list<std::string>::iterator use;
    };

    // All of these are called under m_mutex.
    Activities::iterator beginActivity(const std::string& key);
    void endActivity(Activities::iterator activity);
    void remember(const std::string& key, const std::string& opened, const Version& current);
    void forget(const std::string& key);
    const Known* find(const std::string& key);

    const std::size_t m_capacity;
    std::mutex m_mutex;      // innermost; guards everything below
    Activities m_activities; // one for each key in use
    std::unordered_map<std::string, Known> m_known;
    std::list<std::string> m_uses; // the keys of m_known, the one used last in front
};

} // namespace storage::clients::s3
