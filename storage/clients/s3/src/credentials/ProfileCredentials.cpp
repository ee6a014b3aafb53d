#include "CredentialsSources.hpp"
#include "SecurityTokenService.hpp"
#include "SharedConfig.hpp"

#include <storage/clients/credentials/CredentialsFailure.hpp>

#include <algorithm>
#include <array>
#include <initializer_list>
#include <string>
#include <utility>
#include <vector>

namespace storage::clients::s3
{

namespace
{

/// Follows a profile to those that it names.
class Resolver
{
public:
    explicit Resolver(const SourceContext& context)
        : m_context(context)
        , m_config(context.environment)
    {
    }

    LoadResult resolve(const std::string& name, bool isNamed)
    {
        const SharedSection* const profile = m_config.profile(name);
        if (profile == nullptr)
        {
            const std::string reason = "no profile \"" + name + "\" in " + m_config.files();
            return isNamed ? throw invalidCredentials(reason) : NoCredentials{reason};
        }
        requireNew(name);
        if (hasOneOf(*profile, {"role_arn"}))
        {
            return assume(name, *profile);
        }
        if (hasKeys(*profile))
        {
            return keysOf(*profile);
        }
        if (hasOneOf(*profile, {"sso_session", "sso_start_url", "sso_account_id", "sso_role_name"}))
        {
            return loginCredentials(m_context, m_config, *profile);
        }
        if (hasOneOf(*profile, {"credential_process"}))
        {
            return processCredentials(m_context, *profile);
        }
        if (hasOneOf(*profile, {"source_profile", "credential_source", "web_identity_token_file"}))
        {
            throw invalidCredentials(profile->where + " says how to assume a role but has no role_arn");
        }
        if (hasOneOf(*profile, {"login_session"}))
        {
            throw invalidCredentials(profile->where + " has no keys but login_session, which is not supported");
        }
        if (isNamed)
        {
            throw invalidCredentials(profile->where + " has no credentials, but was chosen by name");
        }
        return NoCredentials{"profile \"" + name + "\" has no credentials"};
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

    void requireNew(const std::string& name)
    {
        const bool isKnown = std::find(m_names.begin(), m_names.end(), name) != m_names.end();
        m_names.push_back(name);
        if (isKnown)
        {
            std::string loop;
            for (const std::string& visited : m_names)
            {
                loop += (loop.empty() ? "\"" : " -> \"") + visited + "\"";
            }
            throw invalidCredentials("the profiles name each other as source_profile: " + loop);
        }
    }

    IssuedCredentials assume(const std::string& name, const SharedSection& profile)
    {
        if (!profile["mfa_serial"].empty())
        {
            throw invalidCredentials(profile.where + " has mfa_serial: a role that needs a one-time code is not "
                                                     "supported; put temporary keys into the environment");
        }
        const RoleRequest role{profile["role_arn"], profile.where, profile["role_session_name"], profile["external_id"],
            profile["duration_seconds"]};
        const std::array sources{
            profile["web_identity_token_file"], profile["source_profile"], profile["credential_source"]};
        const auto& [tokenFile, sourceName, sourceKind] = sources;
        if (std::count(sources.begin(), sources.end(), "") != 2)
        {
            throw invalidCredentials(profile.where + " must have one of source_profile, credential_source and "
                                                     "web_identity_token_file for its role_arn");
        }
        if (!tokenFile.empty())
        {
            return assumeRoleWithWebIdentity(m_context, role, tokenFile, "web_identity_token_file of " + profile.where);
        }
        if (sourceName == name && hasKeys(profile))
        {
            return assumeRole(m_context, role, keysOf(profile).credentials);
        }
        const auto source = sourceName.empty() ? loadFrom(sourceKind, profile) : resolve(sourceName, true);
        if (const auto* none = std::get_if<NoCredentials>(&source))
        {
            throw invalidCredentials(profile.where + " needs other credentials to assume its role: " + none->reason);
        }
        return assumeRole(m_context, role, std::get<IssuedCredentials>(source).credentials);
    }

    LoadResult loadFrom(const std::string& kind, const SharedSection& profile) const
    {
        if (kind == "Environment")
        {
            return environmentCredentials(m_context);
        }
        if (kind == "EcsContainer")
        {
            return containerCredentials(m_context);
        }
        if (kind == "Ec2InstanceMetadata")
        {
            bool hasResponded = false;
            return machineCredentials(m_context, hasResponded);
        }
        throw invalidCredentials(
            "credential_source of " + profile.where + " must be Environment, EcsContainer or Ec2InstanceMetadata");
    }

    const SourceContext& m_context;
    const SharedConfig m_config;
    std::vector<std::string> m_names; // of the profiles visited
};

} // namespace

LoadResult profileCredentials(const SourceContext& context)
{
    const std::string& name = namedProfile(context);
    return Resolver(context).resolve(name.empty() ? "default" : name, !name.empty());
}

} // namespace storage::clients::s3
