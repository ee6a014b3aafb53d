#pragma once

#include <cstddef>
#include <cstdint>
#include <deque>
#include <map>
#include <optional>
#include <string>

namespace storage::clients
{

/// Tags that a decorator gives out in place of those of the client behind it, which it learns later.
///
/// make() and the memory need the owner's lock; isOwn() does not.
class OwnTags
{
public:
    /// Own tags whose counterpart is remembered: the parts of two files of the most parts that a common store takes, or
    /// of thousands of small files. They take about 300 bytes each. The oldest is forgotten first.
    static constexpr std::size_t mostRemembered = 20'000;

    OwnTags();

    /// A tag that no other part has, of this or of another instance.
    std::string make();

    bool isOwn(const std::string& tag) const { return tag.starts_with(m_prefix); }

    /// @param own  made here, and not remembered yet
    void remember(const std::string& own, std::string inner);

    /// The tag that an own one stands for; nothing: it was never remembered, or is forgotten.
    std::optional<std::string> find(const std::string& own) const;

private:
    using Inner = std::map<std::string, std::string>; // by own tag

    const std::string m_prefix;
    std::uint64_t m_count = 0;
    Inner m_inner;
    std::deque<Inner::const_iterator> m_inOrder; // oldest first
};

} // namespace storage::clients
