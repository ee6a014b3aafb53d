#include "ProfileCredentials.hpp"

#include "CredentialsFailure.hpp"
#include "SharedConfig.hpp"

#include <algorithm>
#include <initializer_list>
#include <string>
#include <utility>

namespace storage::clients::s3
{

namespace
{

/// Finds credentials in a profile.
class Resolver
{
public:
    explicit Resolver(const ProviderContext& context)
        : m_config(context.environment)
    {
    }

    CredentialsProvider::LoadResult resolve(const std::string& name, bool isNamed)
    {
        const SharedSection* const profile = m_config.profile(name);
        if (profile == nullptr)
        {
            const std::string reason = "no profile \"" + name + "\" in " + m_config.files();
            return isNamed ? throw invalidCredentials(reason) : NoCredentials{reason};
        }
        if (hasKeys(*profile))
        {
            return keysOf(*profile);
        }
        for (const char* setting : {"role_arn", "source_profile", "sso_session", "sso_start_url", "credential_process",
                 "web_identity_token_file", "login_session"})
        {
            if (hasOneOf(*profile, {setting}))
            {
                throw invalidCredentials(profile->where + " has no keys but " + setting + ", which is not supported");
            }
        }
        return NoCredentials{"profile \"" + name + "\" has no keys"};
    }

private:
    static bool hasOneOf(const SharedSection& profile, std::initializer_list<const char*> settings)
    {
        return std::any_of(
            settings.begin(), settings.end(), [&profile](const char* setting) { return !profile[setting].empty(); });
    }

    static bool hasKeys(const SharedSection& profile)
    {
        return hasOneOf(profile, {"aws_access_key_id", "aws_secret_access_key"});
    }

    static IssuedCredentials keysOf(const SharedSection& profile)
    {
        Credentials keys{profile["aws_access_key_id"], profile["aws_secret_access_key"], profile["aws_session_token"]};
        if (keys.keyId.empty() || keys.secret.empty())
        {
            throw invalidCredentials(profile.where + " has only one of aws_access_key_id and aws_secret_access_key");
        }
        return {std::move(keys)};
    }

    const SharedConfig m_config;
};

} // namespace

ProfileCredentials::ProfileCredentials(ProviderContext context)
    : m_context(std::move(context))
{
}

CredentialsProvider::LoadResult ProfileCredentials::load()
{
    const std::string& name = namedProfile(m_context);
    return Resolver(m_context).resolve(name.empty() ? "default" : name, !name.empty());
}

} // namespace storage::clients::s3
