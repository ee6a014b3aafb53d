#include "ProfileCredentials.hpp"

#include "CredentialsFailure.hpp"

#include <string_view>

namespace storage::clients::s3
{

namespace
{

/// The path of a file: from its variable, else under the home folder; empty when neither is set.
std::filesystem::path locate(const Environment& environment, std::string_view variable, std::string_view underHome)
{
    const std::string& given = environment[variable];
    const std::filesystem::path home = environment["HOME"];
    if (!given.empty() && !given.starts_with("~/"))
    {
        return given;
    }
    // A variable from a unit file has not been through a shell, which would have replaced the tilde.
    return home.empty() ? home : home / (given.empty() ? underHome : std::string_view(given).substr(2));
}

std::vector<SharedFile> locateFiles(const Environment& environment)
{
    std::vector<SharedFile> files;
    const auto add = [&](SharedFile::Kind kind, std::string_view variable, std::string_view underHome)
    {
        if (std::filesystem::path path = locate(environment, variable, underHome); !path.empty())
        {
            files.push_back({kind, std::move(path)});
        }
    };
    add(SharedFile::Kind::Credentials, "AWS_SHARED_CREDENTIALS_FILE", ".aws/credentials");
    add(SharedFile::Kind::Config, "AWS_CONFIG_FILE", ".aws/config");
    return files;
}

std::string nameOf(const Environment& environment, const std::string& profile)
{
    const std::string& fromEnvironment = environment["AWS_PROFILE"];
    return !profile.empty() ? profile : !fromEnvironment.empty() ? fromEnvironment : "default";
}

std::string setting(const Profile& profile, std::string_view name)
{
    const auto found = profile.find(name);
    return found == profile.end() ? std::string() : found->second;
}

/// A setting that makes the store's own tools get credentials in a way not supported here; empty when there is none.
std::string_view unsupportedSetting(const Profile& profile)
{
    for (const std::string_view name :
        {"role_arn", "source_profile", "credential_process", "sso_session", "sso_start_url", "web_identity_token_file"})
    {
        if (profile.contains(name))
        {
            return name;
        }
    }
    return {};
}

std::string listed(const std::vector<SharedFile>& files)
{
    std::string text;
    for (const SharedFile& file : files)
    {
        text += (text.empty() ? "" : " or ") + file.path.string();
    }
    return text.empty() ? "the shared files (HOME is not set)" : text;
}

} // namespace

ProfileCredentials::ProfileCredentials(const Environment& environment, const std::string& profile)
    : m_name(nameOf(environment, profile))
    , m_isNamed(!profile.empty() || !environment["AWS_PROFILE"].empty())
    , m_files(locateFiles(environment))
{
}

CredentialsProvider::LoadResult ProfileCredentials::load()
{
    bool exists = false;
    std::string unsupported;
    for (const SharedFile& file : m_files)
    {
        const auto profiles = readProfiles(file);
        const auto found = profiles.find(m_name);
        if (found == profiles.end())
        {
            continue;
        }
        exists = true;
        const std::string where = "profile \"" + m_name + "\" in " + file.path.string();
        const std::string keyId = setting(found->second, "aws_access_key_id");
        const std::string secret = setting(found->second, "aws_secret_access_key");
        if (!keyId.empty() && !secret.empty())
        {
            // A token belongs to its keys: one from the other file would be wrong.
            return IssuedCredentials{{keyId, secret, setting(found->second, "aws_session_token")}};
        }
        if (!keyId.empty() || !secret.empty())
        {
            throw invalidCredentials(where + " has only one of aws_access_key_id and aws_secret_access_key");
        }
        if (const std::string_view name = unsupportedSetting(found->second); !name.empty())
        {
            unsupported = where + " has no keys but " + std::string(name) +
                          ", which is not supported; put temporary keys into the profile or the environment";
        }
    }
    if (!unsupported.empty())
    {
        throw invalidCredentials(unsupported);
    }
    if (!exists && m_isNamed)
    {
        throw invalidCredentials("no profile \"" + m_name + "\" in " + listed(m_files));
    }
    return NoCredentials{
        exists ? "profile \"" + m_name + "\" has no keys" : "no profile \"" + m_name + "\" in " + listed(m_files)};
}

std::string ProfileCredentials::region() const
{
    for (const SharedFile& file : m_files)
    {
        const auto profiles = readProfiles(file);
        if (const auto found = profiles.find(m_name); found != profiles.end())
        {
            if (std::string region = setting(found->second, "region"); !region.empty())
            {
                return region;
            }
        }
    }
    return {};
}

} // namespace storage::clients::s3
