#include "Names.hpp"

#include "Failure.hpp"

#include <storage/clients/common/KeyRules.hpp>
#include <storage/cloudprovider/CloudExceptions.hpp>

#include <cerrno>
#include <climits>

namespace storage::mount::names
{

namespace
{

constexpr std::string_view escape = "\u241B";

/// Whether a text is "", "." or "..", possibly with escapes in front.
bool isUnusual(std::string_view text)
{
    while (text.starts_with(escape))
    {
        text.remove_prefix(escape.size());
    }
    return text.empty() || text == "." || text == "..";
}

} // namespace

std::string fromSegment(std::string_view segment)
{
    return std::string(isUnusual(segment) ? escape : "").append(segment);
}

std::string toSegment(std::string_view name)
{
    const bool isEscaped = name.starts_with(escape) && isUnusual(name);
    return std::string(isEscaped ? name.substr(escape.size()) : name);
}

void check(std::string_view name, const std::string& key)
{
    if (name.size() > NAME_MAX || key.size() >= clients::maxKeyBytes) // a folder's key has one byte more
    {
        throw Failure(ENAMETOOLONG, "the path " + clients::quoted(key) + " is too long");
    }
    clients::checkKey(key);
}

} // namespace storage::mount::names
