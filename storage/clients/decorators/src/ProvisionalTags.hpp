#pragma once

#include <cstddef>
#include <cstdint>
#include <deque>
#include <map>
#include <optional>
#include <string>

namespace storage::clients
{

/// Provisional tags of parts, and the store's tags that they stand for, which become known later.
///
/// make(), remember() and find() need the owner's lock; isProvisional() does not.
class ProvisionalTags
{
public:
    /// Tags that are remembered: two files of the maximum number of parts that common stores accept, or thousands of
    /// small files. Each takes about 300 bytes. The oldest is forgotten first.
    static constexpr std::size_t maxRemembered = 20'000;

    ProvisionalTags();

    /// Make a tag that no other part has, of this or of another instance.
    std::string make();

    bool isProvisional(const std::string& tag) const { return tag.starts_with(m_prefix); }

    /// @param provisional  made by this instance, and not remembered yet
    void remember(const std::string& provisional, std::string inner);

    /// Find the store's tag for a provisional one. @return nothing: it was never remembered, or is forgotten
    std::optional<std::string> find(const std::string& provisional) const;

private:
    using Inner = std::map<std::string, std::string>; // by provisional tag

    const std::string m_prefix;
    std::uint64_t m_count = 0;
    Inner m_inner;
    std::deque<Inner::const_iterator> m_insertionOrder; // oldest first
};

} // namespace storage::clients
