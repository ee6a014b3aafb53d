#pragma once

#include <cstddef>
#include <deque>
#include <mutex>
#include <optional>
#include <string>

namespace storage::clients
{

/// Contents of small objects that were fetched when they were opened, kept for the one read that follows.
///
/// Bounded: the oldest entry is evicted. Safe for concurrent calls.
class SmallObjectCache
{
public:
    /// @param tag  entity tag of the version that has this content
    void keep(const std::string& key, const std::string& tag, std::string content);

    /// Remove and return the content of a version; nothing when there is none.
    std::optional<std::string> take(const std::string& key, const std::string& tag);

private:
    struct Entry
    {
        std::string key;
        std::string tag;
        std::string content;
    };
    using Entries = std::deque<Entry>;

    Entries::iterator find(const std::string& key);

    std::mutex m_mutex; // innermost
    Entries m_entries;  // guarded by m_mutex; at most one for each key, the newest last
};

} // namespace storage::clients
