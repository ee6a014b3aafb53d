#pragma once

#include <iosfwd>
#include <string>
#include <string_view>
#include <unordered_map>

namespace storage::clients
{

/// Types of contents by the names of files. Safe for concurrent calls.
class ContentTypes
{
public:
    /// @param globs  lines WEIGHT:TYPE:GLOB, as in globs2 of the shared MIME database. Of the globs, only plain names
    ///               and `*.SUFFIX` are used. The first line for a glob counts.
    explicit ContentTypes(std::istream& globs);

    /// The type of the longest suffix that is known, as it is written or else in lower case. Empty: no suffix is known.
    std::string of(const std::string& name) const;

private:
    std::unordered_map<std::string, std::string> m_types; // by glob
};

/// The type of an object with this key, by the machine's shared MIME database, and where that has none, by a small
/// table. Empty: it is not known, or the key is that of a folder. The database is read by the first call.
std::string contentTypeOf(const std::string& key);

} // namespace storage::clients
