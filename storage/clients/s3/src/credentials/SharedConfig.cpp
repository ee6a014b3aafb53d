#include "SharedConfig.hpp"

#include <storage/clients/credentials/CredentialsFailure.hpp>

#include <boost/algorithm/string/case_conv.hpp>
#include <boost/algorithm/string/predicate.hpp>

#include <utility>

namespace storage::clients::s3
{

namespace
{

constexpr std::string_view keyId = "aws_access_key_id";
constexpr std::string_view secret = "aws_secret_access_key";
constexpr std::string_view token = "aws_session_token";

const std::string& find(const SharedSettings& settings, std::string_view name)
{
    static const std::string unset;
    const auto found = settings.find(name);
    return found == settings.end() ? unset : found->second;
}

bool hasKeys(const SharedSettings& settings)
{
    return !find(settings, keyId).empty() || !find(settings, secret).empty();
}

void merge(
    SharedSection& section, const SharedSettings& settings, const std::string& name, const std::filesystem::path& file)
{
    const bool skipKeys = hasKeys(section.settings) || !hasKeys(settings);
    for (const auto& [setting, value] : settings)
    {
        const bool isKey = setting == keyId || setting == secret || setting == token;
        if (std::string& merged = section.settings[setting]; merged.empty() && !(isKey && skipKeys))
        {
            merged = value;
        }
    }
    section.where += section.where.empty() ? name : " and ";
    section.where += file.string();
}

/// The profile that is used; one without settings when neither file has it.
const SharedSection& chosenProfile(const SharedConfig& config, const SourceContext& context)
{
    static const SharedSection none;
    const std::string& name = namedProfile(context);
    const SharedSection* const profile = config.profile(name.empty() ? "default" : name);
    return profile == nullptr ? none : *profile;
}

} // namespace

const std::string& SharedSection::operator[](std::string_view name) const
{
    return find(settings, name);
}

SharedConfig::SharedConfig(const Environment& environment)
{
    const auto read = [&](SharedFile::Kind kind, std::string_view variable, const char* underHome)
    {
        const std::string& given = environment[variable];
        SharedFile file{kind, expandHome(environment, given.empty() ? underHome : given)};
        if (file.path.empty())
        {
            return;
        }
        for (const auto& [name, settings] : readSharedFile(file))
        {
            merge(m_sections[name], settings, name.first + " \"" + name.second + "\" in ", file.path);
        }
        m_files.push_back(std::move(file));
    };
    read(SharedFile::Kind::Profiles, "AWS_SHARED_CREDENTIALS_FILE", "~/.aws/credentials");
    read(SharedFile::Kind::Config, "AWS_CONFIG_FILE", "~/.aws/config");
}

const SharedSection* SharedConfig::section(const std::string& kind, const std::string& name) const
{
    const auto found = m_sections.find({kind, name});
    return found == m_sections.end() ? nullptr : &found->second;
}

std::string SharedConfig::files() const
{
    std::string text;
    for (const SharedFile& file : m_files)
    {
        text += (text.empty() ? "" : " or ") + file.path.string();
    }
    return text.empty() ? "the shared files (HOME is not set)" : text;
}

const std::string& namedProfile(const SourceContext& context)
{
    const std::string& fromEnvironment = context.environment["AWS_PROFILE"];
    return !context.profile.empty()   ? context.profile
           : !fromEnvironment.empty() ? fromEnvironment
                                      : context.environment["AWS_DEFAULT_PROFILE"];
}

std::string configured(
    const SourceContext& context, std::initializer_list<const char*> variables, std::string_view setting)
{
    for (const char* variable : variables)
    {
        if (const std::string& value = context.environment[variable]; !value.empty())
        {
            return value;
        }
    }
    const SharedConfig config(context.environment);
    return chosenProfile(config, context)[setting];
}

ConfiguredEndpoint configuredEndpoint(const SourceContext& context, const std::string& service)
{
    const auto ignores =
        configured(context, {"AWS_IGNORE_CONFIGURED_ENDPOINT_URLS"}, "ignore_configured_endpoint_urls");
    if (boost::algorithm::iequals(ignores, "true"))
    {
        return {};
    }
    for (const std::string& variable :
        {"AWS_ENDPOINT_URL_" + boost::algorithm::to_upper_copy(service), std::string("AWS_ENDPOINT_URL")})
    {
        if (const std::string& url = context.environment[variable]; !url.empty())
        {
            return {url, variable};
        }
    }
    const SharedConfig config(context.environment);
    const SharedSection& profile = chosenProfile(config, context);
    if (const std::string& name = profile["services"]; !name.empty())
    {
        const SharedSection* const services = config.section("services", name);
        if (services == nullptr)
        {
            throw invalidCredentials("services of " + profile.where + ": there is no section [services " + name + "]");
        }
        if (const std::string& url = (*services)[service + ".endpoint_url"]; !url.empty())
        {
            return {url, "endpoint_url of " + service + " of " + services->where};
        }
    }
    return {profile["endpoint_url"], "endpoint_url of " + profile.where};
}

} // namespace storage::clients::s3
