#pragma once

#include <filesystem>
#include <map>
#include <string>
#include <utility>

namespace storage::clients
{

/// The values of settings by name. Names are in lower case. Those that belong to another setting, because they are
/// indented below it, are named like "s3.endpoint_url".
using SharedSettings = std::map<std::string, std::string, std::less<>>;

/// The sections of a file by kind and name, such as "profile" and "default".
using SharedSections = std::map<std::pair<std::string, std::string>, SharedSettings>;

/// One of the files that the store's tools share.
struct SharedFile
{
    enum class Kind
    {
        Profiles, ///< a section is named like its profile: [NAME]
        Config    ///< [default] for that profile, [KIND NAME] for all others
    };

    Kind kind;
    std::filesystem::path path;
};

/// Read a file, which consists of sections with settings `name = value`.
///
/// Blank lines and lines that begin with # or ; are ignored. A value ends before a blank followed by # or ;. Sections
/// with the same name are merged; of settings with the same name the last one is used.
/// @return empty when there is no such file
/// @throws cloudprovider::InvalidCredentialsException when it cannot be read or parsed, with the file and the line
///         number but never the text of a line
SharedSections readSharedFile(const SharedFile& file);

} // namespace storage::clients
