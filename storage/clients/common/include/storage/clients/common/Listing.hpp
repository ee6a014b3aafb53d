#pragma once

#include <storage/cloudprovider/CloudClient.hpp>

#include <algorithm>
#include <cstddef>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

namespace storage::clients
{

/// A position in a store's keys in ascending byte order. listPage() moves it forward.
template <typename T>
concept KeyCursor = requires(T cursor, const std::string& key)
{
    cursor.seek(key); // move to the first key that is not less than `key`
    cursor.next();    // move to the next key; not called at the end
    cursor.atEnd();   // bool: past the last key
    cursor.key();     // converts to std::string_view, valid until the cursor moves; not called at the end
    cursor.entry();   // ObjectEntry of the current object; not called at the end
};

/// The smallest string that is greater than every key with this prefix; empty when there is none. A UTF-8 prefix has
/// one unless it is empty.
std::string prefixEnd(std::string prefix);

/// The group that a key belongs to in a listing: the key up to and including the first delimiter after the prefix.
/// Empty when the key itself is listed.
std::string_view groupOf(std::string_view key, std::size_t prefixSize, std::string_view delimiter);

/// Make one page of a listing. The number of cursor moves is proportional to the number of entries: one seek skips the
/// rest of a group, however many keys it has.
///
/// A token is the smallest key that the next page may contain. So it stays valid whatever changes in the store, and the
/// store need not remember it.
/// @param token     in and out, as for CloudClient::listObjects()
/// @param options   a maxKeys below 1 means no limit
/// @param pageSize  the store's own maximum of entries on a page; at least 1
template <KeyCursor Cursor>
std::vector<cloudprovider::ObjectEntry> listPage(Cursor& cursor, const std::string& prefix, std::string& token,
    const cloudprovider::ListOptions& options, std::size_t pageSize)
{
    const std::size_t limit =
        options.maxKeys < 1 ? pageSize : std::min(pageSize, static_cast<std::size_t>(options.maxKeys));
    const auto inListing = [&] { return !cursor.atEnd() && std::string_view(cursor.key()).starts_with(prefix); };

    std::vector<cloudprovider::ObjectEntry> page;
    cursor.seek(token.empty() ? prefix : token);
    while (page.size() < limit && inListing())
    {
        const std::string_view group = groupOf(cursor.key(), prefix.size(), options.delimiter);
        if (group.empty())
        {
            page.push_back(cursor.entry());
            cursor.next();
            continue;
        }
        // An object whose key is that of the group comes first in it, and its time is the group's time.
        cloudprovider::ObjectEntry entry{std::string(group), 0, {}};
        if (group.size() == std::string_view(cursor.key()).size())
        {
            entry.lastModified = cursor.entry().lastModified;
        }
        // A step is cheaper than a seek, and most groups of a wide listing are small.
        cursor.next();
        if (inListing() && std::string_view(cursor.key()).starts_with(entry.key))
        {
            cursor.seek(prefixEnd(entry.key));
        }
        page.push_back(std::move(entry));
    }
    if (page.empty() || !inListing())
    {
        token.clear();
        return page;
    }
    const std::string& last = page.back().key;
    const bool isGroup = !groupOf(last, prefix.size(), options.delimiter).empty();
    token = isGroup ? prefixEnd(last) : last + '\0';
    return page;
}

} // namespace storage::clients
