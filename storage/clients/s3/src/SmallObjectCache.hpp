#pragma once

#include <cstddef>
#include <deque>
#include <mutex>
#include <optional>
#include <string>

namespace storage::clients::s3
{

/// Contents of small objects that came with the answer that told what they are, kept for the one read that follows.
///
/// Bounded: those that nobody came for make room for newer ones. Safe for concurrent calls.
class SmallObjectCache
{
public:
    /// @param tag  of the version that has this content
    void keep(const std::string& key, const std::string& tag, std::string content);

    /// Hand a content out, once; nothing when there is none of that version.
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
    Entries m_entries;  // guarded by m_mutex; one for a key, the newest behind
};

} // namespace storage::clients::s3
