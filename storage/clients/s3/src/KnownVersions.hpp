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

/// One version of an object.
struct Version
{
    std::string tag; ///< entity tag, without quotes
    std::uint64_t size = 0;
};

/// Remembers for each key which version of its object was opened, and which version this process has written since.
///
/// Ranges are read from the version that was opened, so that no reader sees a mixture of two. A version that this
/// process writes replaces the one before. Beyond `capacity` keys the least recently used one is forgotten; its object
/// is then read without a version check. Safe for concurrent calls.
class KnownVersions
{
    struct Activity
    {
        std::size_t watchers = 0;   ///< existing Observations and Writes
        std::size_t writers = 0;    ///< existing Writes
        std::uint64_t finished = 0; ///< ended Writes
    };
    using Activities = std::map<std::string, Activity>;

public:
    explicit KnownVersions(std::size_t capacity)
        : m_capacity(capacity)
    {
    }

    /// Observes during its lifetime whether this process writes the key. If it does, what was read about the object is
    /// outdated, and if a version no longer exists, this process may have replaced it.
    class Observation
    {
    public:
        Observation(KnownVersions& versions, const std::string& key);
        Observation(const Observation&) = delete;
        Observation& operator=(const Observation&) = delete;
        ~Observation();

        bool sawWrite() const;

        /// Remember the version as the one that was opened. Forget the key instead if the version may be outdated.
        void opened(const Version& version);

    private:
        bool sawWriteLocked() const;

        KnownVersions& m_versions;
        Activities::iterator m_activity;
        std::uint64_t m_finishedBefore = 0;
        bool m_startedDuringWrite = false;
    };

    /// One write of the key by this process. At its end the key is forgotten unless one of the calls below was made.
    class Write
    {
    public:
        Write(KnownVersions& versions, const std::string& key);
        Write(const Write&) = delete;
        Write& operator=(const Write&) = delete;
        ~Write();

        /// Report the object's new version.
        void succeeded(const Version& version);

        /// Report that the object has not changed.
        void changedNothing() noexcept { m_settled = true; }

    private:
        KnownVersions& m_versions;
        Activities::iterator m_activity;
        bool m_settled = false;
    };

    /// The version to read: the one that was opened, or that this process has written since. Nothing: any version.
    std::optional<Version> current(const std::string& key);

    /// Whether the version tagged `stored` is the one tagged `opened`, or was written by this process to a file opened
    /// at that version.
    bool descends(const std::string& key, const std::string& stored, const std::string& opened);

private:
    struct Known
    {
        std::string opened; ///< tag
        Version current;
        std::list<std::string>::iterator use;
    };

    // All of these require m_mutex.
    Activities::iterator beginActivity(const std::string& key);
    void endActivity(Activities::iterator activity);
    void remember(const std::string& key, const std::string& opened, const Version& current);
    void forget(const std::string& key);
    const Known* find(const std::string& key);

    const std::size_t m_capacity;
    std::mutex m_mutex;      // innermost; guards everything below
    Activities m_activities; // one for each key that is being observed or written
    std::unordered_map<std::string, Known> m_known;
    std::list<std::string> m_uses; // the keys of m_known, the most recently used first
};

} // namespace storage::clients::s3
