#include <storage/clients/azure/Credentials.hpp>

#include <storage/cloudprovider/CloudExceptions.hpp>

#include <boost/algorithm/string/classification.hpp>
#include <boost/algorithm/string/predicate.hpp>
#include <boost/algorithm/string/split.hpp>
#include <boost/algorithm/string/trim.hpp>

#include <cstdlib>
#include <utility>
#include <vector>

namespace storage::clients::azure
{

namespace
{

using cloudprovider::InvalidCredentialsException;

class FixedCredentials : public CredentialsSource
{
public:
    explicit FixedCredentials(Credentials credentials)
        : m_credentials(std::move(credentials))
    {
    }

    Credentials credentials() override { return m_credentials; }

private:
    const Credentials m_credentials;
};

/// Fails with the reason why there are no credentials.
class MissingCredentials : public CredentialsSource
{
public:
    explicit MissingCredentials(std::string reason)
        : m_reason(std::move(reason))
    {
    }

    Credentials credentials() override { throw InvalidCredentialsException("No credentials", m_reason); }

private:
    const std::string m_reason;
};

std::string variable(const char* name)
{
    const char* const value = std::getenv(name);
    return value == nullptr ? "" : boost::algorithm::trim_copy(std::string(value));
}

void requireAccount(const std::string& account, const std::string& other, const std::string& source)
{
    if (!other.empty() && other != account)
    {
        throw InvalidCredentialsException(
            "Invalid credentials", source + " is for the account " + other + ", and not for " + account);
    }
}

Credentials readConnectionString(const std::string& text, const std::string& account)
{
    Credentials credentials;
    std::vector<std::string> pairs;
    boost::algorithm::split(pairs, text, boost::algorithm::is_any_of(";"));
    for (const std::string& pair : pairs)
    {
        const std::string value = pair.substr(std::min(pair.find('='), pair.size() - 1) + 1);
        if (boost::algorithm::istarts_with(pair, "AccountName="))
        {
            requireAccount(account, value, "AZURE_STORAGE_CONNECTION_STRING");
        }
        else if (boost::algorithm::istarts_with(pair, "AccountKey="))
        {
            credentials.accountKey = value;
        }
        else if (boost::algorithm::istarts_with(pair, "SharedAccessSignature="))
        {
            credentials.sas = boost::algorithm::trim_left_copy_if(value, boost::algorithm::is_any_of("?"));
        }
    }
    if (credentials.isAnonymous())
    {
        throw InvalidCredentialsException(
            "Invalid credentials", "AZURE_STORAGE_CONNECTION_STRING has neither AccountKey nor SharedAccessSignature");
    }
    credentials.accountKey.empty() ? void() : credentials.sas.clear();
    return credentials;
}

} // namespace

std::shared_ptr<CredentialsSource> fixedCredentials(Credentials credentials)
{
    return std::make_shared<FixedCredentials>(std::move(credentials));
}

std::shared_ptr<CredentialsSource> defaultCredentials(const std::string& account,
    const std::filesystem::path& /*authorities*/, const std::function<bool()>& /*interrupted*/)
{
    try
    {
        if (const std::string text = variable("AZURE_STORAGE_CONNECTION_STRING"); !text.empty())
        {
            return fixedCredentials(readConnectionString(text, account));
        }
        const std::string key = variable("AZURE_STORAGE_KEY");
        const std::string sas =
            boost::algorithm::trim_left_copy_if(variable("AZURE_STORAGE_SAS_TOKEN"), boost::algorithm::is_any_of("?"));
        if (!key.empty() || !sas.empty())
        {
            requireAccount(account, variable("AZURE_STORAGE_ACCOUNT"), "AZURE_STORAGE_ACCOUNT");
            return fixedCredentials(key.empty() ? Credentials{.sas = sas} : Credentials{.accountKey = key});
        }
    }
    catch (const InvalidCredentialsException& failure)
    {
        return std::make_shared<MissingCredentials>(failure.detail().value_or(failure.what()));
    }
    return std::make_shared<MissingCredentials>("none of AZURE_STORAGE_CONNECTION_STRING, AZURE_STORAGE_KEY and "
                                                "AZURE_STORAGE_SAS_TOKEN is set; use anonymous=1 "
                                                "in the store's URL for a public container");
}

} // namespace storage::clients::azure
