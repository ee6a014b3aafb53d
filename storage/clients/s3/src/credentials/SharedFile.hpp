#pragma once

#include <filesystem>
#include <map>
#include <string>

namespace storage::clients::s3
{

/// The settings of one profile by name, names in lower case.
using Profile = std::map<std::string, std::string, std::less<>>;

/// One of the two files that a store's tools share.
struct SharedFile
{
    enum class Kind
    {
        Credentials, ///< a section is named as its profile: [NAME]
        Config       ///< [default], and [profile NAME] for every other profile; further sections are not profiles
    };

    Kind kind;
    std::filesystem::path path;
};

/// Read all profiles of a file: sections of settings `name = value`.
///
/// Blank lines and lines that begin with # or ; mean nothing, nor does what follows a blank and one of these in a
/// value. Lines that are indented deeper than the setting above them belong to it and are left out. Sections of one
/// name are one; of settings of one name the last counts.
/// @return empty when there is no such file
/// @throws cloudprovider::InvalidCredentialsException when it cannot be read or understood, with file and line, but
///         never the text of a line
std::map<std::string, Profile, std::less<>> readProfiles(const SharedFile& file);

} // namespace storage::clients::s3
