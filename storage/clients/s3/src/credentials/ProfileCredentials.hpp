#pragma once

#include "CredentialsProvider.hpp"
#include "Environment.hpp"
#include "SharedFile.hpp"

#include <string>
#include <vector>

namespace storage::clients::s3
{

/// One profile of the shared files.
class ProfileCredentials : public CredentialsProvider
{
public:
    /// @param profile  empty: the one that the environment names, else "default"
    ProfileCredentials(const Environment& environment, const std::string& profile);

    /// A profile that was asked for by name and is in neither file is a failure; that there is no "default" is none.
    LoadResult load() override;

    /// Empty when the profile names none or does not exist.
    /// @throws cloudprovider::InvalidCredentialsException when a file cannot be read
    std::string region() const;

private:
    const std::string m_name;
    const bool m_isNamed;                  // somebody asked for this very profile
    const std::vector<SharedFile> m_files; // the first that has what is wanted counts
};

} // namespace storage::clients::s3
