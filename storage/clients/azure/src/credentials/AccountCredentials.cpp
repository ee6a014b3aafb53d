#include "CredentialsSources.hpp"

#include <storage/clients/common/KeyRules.hpp>
#include <storage/clients/credentials/SharedFile.hpp>

#include <boost/algorithm/string/case_conv.hpp>
#include <boost/algorithm/string/classification.hpp>
#include <boost/algorithm/string/split.hpp>

#include <algorithm>
#include <vector>

namespace storage::clients::azure
{

namespace
{

struct Setting
{
    std::string name; // for messages
    std::string value;
};

struct AccountSettings
{
    Setting connectionString;
    Setting account;
    Setting key;
    Setting sas;
};

/// What is in text such as "AccountName=a;AccountKey=k=". Names are case-insensitive, values may contain "=".
AccountSettings partsOf(const Setting& connectionString)
{
    SharedSettings parts;
    std::vector<std::string> texts;
    boost::algorithm::split(texts, connectionString.value, boost::algorithm::is_any_of(";"));
    for (const std::string& text : texts)
    {
        const std::size_t sign = std::min(text.find('='), text.size());
        if (sign == text.size() && sign != 0)
        {
            throw invalidCredentials(connectionString.name + " must be like NAME=VALUE;NAME=VALUE");
        }
        parts[boost::algorithm::to_lower_copy(text.substr(0, sign))] = text.substr(std::min(sign + 1, text.size()));
    }
    const auto part = [&](const std::string& name) {
        return Setting{name + " of " + connectionString.name, parts[boost::algorithm::to_lower_copy(name)]};
    };
    AccountSettings result{{}, part("AccountName"), part("AccountKey"), part("SharedAccessSignature")};
    if (result.key.value.empty() && result.sas.value.empty())
    {
        throw invalidCredentials(connectionString.name + " has neither AccountKey nor SharedAccessSignature");
    }
    return result;
}

/// @param isForOthers  the settings may be for another account; then they are not used
LoadResult load(const SourceContext& context, AccountSettings settings, bool isForOthers)
{
    if (!settings.connectionString.value.empty())
    {
        settings = partsOf(settings.connectionString);
    }
    const auto& [text, account, key, sas] = settings;
    if (key.value.empty() && sas.value.empty())
    {
        return NoCredentials{text.name + ", " + key.name + " and " + sas.name + " are not set"};
    }
    if (!account.value.empty() && account.value != context.account)
    {
        const std::string reason = account.name + " is " + quoted(account.value) + ", not " + quoted(context.account);
        return isForOthers ? NoCredentials{reason} : throw invalidCredentials(reason);
    }
    if (!key.value.empty())
    {
        return IssuedCredentials{{.accountKey = key.value}};
    }
    const bool hasMark = sas.value.starts_with('?'); // as it is copied from a URL
    return IssuedCredentials{{.sas = sas.value.substr(hasMark ? 1 : 0)}};
}

} // namespace

LoadResult variableCredentials(const SourceContext& context)
{
    const auto variable = [&](const char* name) { return Setting{name, context.environment[name]}; };
    return load(context,
        {variable("AZURE_STORAGE_CONNECTION_STRING"), variable("AZURE_STORAGE_ACCOUNT"), variable("AZURE_STORAGE_KEY"),
            variable("AZURE_STORAGE_SAS_TOKEN")},
        false);
}

LoadResult configuredCredentials(const SourceContext& context)
{
    if (const auto reason = whyNotCommandLine(context.environment))
    {
        return NoCredentials{*reason};
    }
    const std::filesystem::path file = commandLineFolder(context.environment) / "config";
    SharedSections sections = readSharedFile({SharedFile::Kind::Profiles, file});
    SharedSettings& storage = sections[{"profile", "storage"}];
    const auto setting = [&](const char* name) {
        return Setting{std::string(name) + " of [storage] in " + file.string(), storage[name]};
    };
    // The file is for all programs of its user, and nobody can open this store with the key of another account.
    return load(
        context, {setting("connection_string"), setting("account"), setting("key"), setting("sas_token")}, true);
}

} // namespace storage::clients::azure
