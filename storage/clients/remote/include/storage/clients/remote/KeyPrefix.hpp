#pragma once

#include <string>
#include <vector>

namespace storage::clients
{

/// Remove the prefix of a store from the keys of a page, and what is not below it. An object with the prefix as its key
/// would be the root.
template <typename Listed>
void removePrefix(std::vector<Listed>& listed, const std::string& prefix)
{
    std::erase_if(listed,
        [&](const Listed& object) { return !object.key.starts_with(prefix) || object.key.size() == prefix.size(); });
    for (Listed& object : listed)
    {
        object.key.erase(0, prefix.size());
    }
}

} // namespace storage::clients
