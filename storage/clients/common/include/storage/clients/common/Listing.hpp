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

/// A place in a store's keys in ascending byte order, which listPage() moves forward.
template <typename T>
concept KeyCursor = requires(T cursor, const std::string& key)
{
    cursor.seek(key); // to the first key that is not less
    cursor.next();    // to the key behind; asked only when not at the end
    cursor.atEnd();   // bool: behind the last key
    cursor.key();     // like a std::string_view, valid until the cursor moves
    cursor.entry();   // ObjectEntry of the object here
};

/// The least string that is greater than every key that begins with `prefix`; empty when there is none, which no
/// UTF-8 prefix but the empty one comes to.
std::string prefixEnd(std::string prefix);

/// The group that a key is listed as: up to and with the first delimiter after the prefix; empty when the key is listed
/// itself.
std::string_view groupOf(std::string_view key, std::size_t prefixSize, std::string_view delimiter);

/// Make one page of a listing, in as many cursor steps as it has entries: a group is left with one seek, however many
/// keys it has.
///
/// Tokens are the least key that may come next, so they outlive any change of the store and cost it no memory.
/// @param token     as CloudClient::listObjects() has it
/// @param options   a maxKeys below 1 asks for no limit
/// @param pageSize  most entries that the store itself puts into a page, at least 1
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
        // An object under the group's own key is its first, and gives the group its time.
        cloudprovider::ObjectEntry entry{std::string(group), 0, {}};
        if (group.size() == std::string_view(cursor.key()).size())
        {
            entry.lastModified = cursor.entry().lastModified;
        }
        // Most groups of a wide listing are small, and a step is cheaper than a seek.
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
