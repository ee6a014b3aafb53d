#include "CredentialsSources.hpp"
#include "TokenService.hpp"

#include <storage/clients/common/KeyRules.hpp>
#include <storage/clients/credentials/JsonDocument.hpp>
#include <storage/clients/credentials/SmallFile.hpp>

#include <boost/algorithm/string/predicate.hpp>

#include <functional>
#include <system_error>

namespace storage::clients::azure
{

namespace
{

namespace fs = std::filesystem;
using boost::algorithm::iequals;

constexpr std::size_t maxFileSize = 4 << 20;   // some KiB for each tenant, subscription and service
constexpr std::chrono::minutes minLifetime{5}; // of a token that another program has requested
constexpr const char* logIn = "; run \"az login\"";

bool isMissing(const fs::path& file)
{
    std::error_code error; // if it cannot be told, reading the file fails, and says why
    return !fs::exists(file, error) && !error;
}

JsonDocument readDocument(const fs::path& file, const std::string& role)
{
    try
    {
        return parseJson(readSmallFile(file, role, maxFileSize)); // a byte order mark is allowed, and `az` writes one
    }
    catch (const CredentialsDocumentError& fault)
    {
        throw invalidCredentials(file.string() + ": " + fault.what());
    }
}

/// The first entry below a name that fits; null when there is none. Valid as long as the document.
const JsonDocument* findEntry(
    const JsonDocument& document, const char* below, const std::function<bool(const JsonDocument&)>& fits)
{
    if (const auto entries = document.get_child_optional(below))
    {
        for (const auto& [name, entry] : *entries)
        {
            if (fits(entry))
            {
                return &entry;
            }
        }
    }
    return nullptr;
}

/// The tokens of one user for one tenant.
class TokenCache
{
public:
    TokenCache(const fs::path& folder, const std::string& user, std::string tenant)
        : m_file(folder / "msal_token_cache.json")
        , m_user(user)
        , m_tenant(std::move(tenant))
        , m_document(read(folder))
    {
        const auto* account = findEntry(
            m_document, "Account", [&](const JsonDocument& entry) { return iequals(textOf(entry, "username"), user); });
        m_account = account == nullptr ? "" : textOf(*account, "home_account_id");
    }

    /// A token that is not the used one and is valid for a while; nothing when there is none.
    std::optional<IssuedCredentials> token(const std::string& usedToken) const
    try
    {
        const auto* entry = findEntry(m_document, "AccessToken",
            [&](const JsonDocument& each)
            {
                return isOurs(each) && textOf(each, "realm") == m_tenant &&
                       iequals(textOf(each, "token_type"), "Bearer") &&
                       textOf(each, "target").starts_with(storageResource);
            });
        if (entry == nullptr || textOf(*entry, "secret") == usedToken)
        {
            return std::nullopt;
        }
        const auto expiry = readSeconds(textOf(*entry, "expires_on"));
        // In seconds: a time in 9999 does not fit into nanoseconds.
        if (expiry < std::chrono::floor<std::chrono::seconds>(std::chrono::system_clock::now()) + minLifetime)
        {
            return std::nullopt;
        }
        return IssuedCredentials{{.bearerToken = textOf(*entry, "secret")}, expiry};
    }
    catch (const CredentialsDocumentError& fault)
    {
        throw invalidCredentials(m_file.string() + ": " + fault.what());
    }

    /// What requests a new token.
    Grant renewal() const
    {
        const auto* entry =
            findEntry(m_document, "RefreshToken", [&](const JsonDocument& each) { return isOurs(each); });
        if (entry == nullptr)
        {
            throw invalidCredentials(m_file.string() + " has no refresh token of user " + quoted(m_user) + logIn);
        }
        return {.holder = "the login of user " + quoted(m_user) + " in " + m_file.string(),
            .tenant = m_tenant,
            .authority = textOf(*entry, "environment"),
            .parameters = {{"client_id", textOf(*entry, "client_id")}, {"grant_type", "refresh_token"},
                {"refresh_token", textOf(*entry, "secret")}},
            .remedy = logIn};
    }

private:
    JsonDocument read(const fs::path& folder) const
    {
        const fs::path encrypted = folder / "msal_token_cache.bin";
        if (isMissing(m_file) && !isMissing(encrypted))
        {
            throw invalidCredentials(encrypted.string() +
                                     " is encrypted, so the login in it cannot be used; run \"az "
                                     "config set core.encrypt_token_cache=false\" and \"az login\"");
        }
        return readDocument(m_file, "where \"az login\" keeps its tokens");
    }

    bool isOurs(const JsonDocument& entry) const
    {
        return !m_account.empty() && textOf(entry, "home_account_id") == m_account;
    }

    const fs::path m_file;
    const std::string m_user;
    const std::string m_tenant;
    const JsonDocument m_document;
    std::string m_account; // empty: the user has none
};

} // namespace

std::optional<std::string> whyNotCommandLine(const Environment& environment)
{
    if (!environment["AZURE_CLIENT_ID"].empty())
    {
        return "AZURE_CLIENT_ID names another identity than the files of \"az\"";
    }
    return commandLineFolder(environment).empty() ? std::optional("HOME is not set") : std::nullopt;
}

fs::path commandLineFolder(const Environment& environment)
{
    const std::string& folder = environment["AZURE_CONFIG_DIR"];
    return expandHome(environment, folder.empty() ? "~/.azure" : folder);
}

LoadResult loginCredentials(const SourceContext& context, std::string& usedToken)
{
    if (const auto reason = whyNotCommandLine(context.environment))
    {
        return NoCredentials{*reason};
    }
    const fs::path folder = commandLineFolder(context.environment);
    const fs::path file = folder / "azureProfile.json";
    const NoCredentials noLogin{"no login in " + file.string()};
    if (isMissing(file))
    {
        return noLogin;
    }
    const JsonDocument logins = readDocument(file, "where \"az login\" keeps its subscriptions");
    const auto* login = findEntry(
        logins, "subscriptions", [](const JsonDocument& entry) { return textOf(entry, "isDefault") == "true"; });
    if (login == nullptr)
    {
        const bool hasOther = logins.count("subscriptions") != 0 && !logins.get_child("subscriptions").empty();
        return hasOther
                   ? throw invalidCredentials(file.string() + " has no default subscription; run \"az account set\"")
                   : noLogin;
    }
    if (textOf(*login, "user.assignedIdentityInfo") == "MSI")
    {
        return NoCredentials{"the login in " + file.string() + " is the machine's identity"};
    }
    if (textOf(*login, "user.type") != "user")
    {
        throw invalidCredentials("the login in " + file.string() +
                                 " is not a user's, which is not supported; set "
                                 "AZURE_TENANT_ID, AZURE_CLIENT_ID and AZURE_CLIENT_SECRET instead");
    }
    const TokenCache cache(folder, textOf(*login, "user.name"), textOf(*login, "tenantId"));
    if (const auto cached = cache.token(usedToken))
    {
        usedToken = cached->credentials.bearerToken;
        return *cached;
    }
    return requestToken(context, cache.renewal());
}

} // namespace storage::clients::azure
