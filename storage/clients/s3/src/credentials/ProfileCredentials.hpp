#pragma once

#include "CredentialsProvider.hpp"
#include "Environment.hpp"
#include "SharedFile.hpp"

#include <string>
#include <vector>

namespace storage::clients::s3
{

/// Credentials from one profile of the shared files.
class ProfileCredentials : public CredentialsProvider
{
public:
    /// @param profile  empty: the one that the environment names, else "default"
    ProfileCredentials(const Environment& environment, const std::string& profile);

    /// It is a failure if a profile that was chosen by name is in neither file. A missing "default" is not a failure.
    LoadResult load() override;

    /// The profile's region; empty when it has none or does not exist.
    /// @throws cloudprovider::InvalidCredentialsException when a file cannot be read
    std::string region() const;

private:
    const std::string m_name;
    const bool m_isNamed;                  // by the caller or the environment
    const std::vector<SharedFile> m_files; // the first one that has a setting is used
};

} // namespace storage::clients::s3
