#include "ContainerAddress.hpp"

#include <storage/clients/common/KeyRules.hpp>
#include <storage/clients/http/UriEncoding.hpp>
#include <storage/cloudprovider/CloudExceptions.hpp>

#include <fmt/format.h>

#include <regex>

namespace storage::clients::azure
{

ContainerAddress::ContainerAddress(const AzureSettings& settings)
    : m_account(settings.account)
    , m_container(settings.container)
    , m_prefix(settings.prefix)
{
    const auto refuse = [](const std::string& reason)
    { throw cloudprovider::InvalidLocationException("Invalid store", reason + "; the form is " + urlForm); };
    static const std::regex accountForm("[a-z0-9]{3,24}");
    static const std::regex containerForm(R"([a-z0-9](-?[a-z0-9]){2,62}|\$root|\$web|\$logs)");
    constexpr std::size_t maxName = 63; // characters, which the forms do not limit if there are many "-"
    if (!std::regex_match(m_account, accountForm))
    {
        refuse("the account's name is not valid"); // it may be followed by a key
    }
    if (m_container.size() > maxName || !std::regex_match(m_container, containerForm))
    {
        refuse(clients::quoted(m_container) + " is not a valid container name");
    }
    const auto endpoint = readEndpoint(
        settings.endpoint.empty() ? fmt::format("https://{}.blob.core.windows.net", m_account) : settings.endpoint);
    if (!endpoint)
    {
        refuse("the endpoint must be like https://HOST or http://HOST:PORT/ACCOUNT"); // it may contain a password
    }
    m_endpoint = *endpoint;
}

std::string ContainerAddress::host() const
{
    const std::string& host = m_endpoint.host;
    const std::size_t colon = host.rfind(':');
    const bool hasPort = colon != host.npos && host.find(']', colon) == host.npos; // an IPv6 address has colons, too
    return hasPort ? host.substr(0, colon) : host;
}

std::string ContainerAddress::path(const std::string& key) const
{
    if (key.size() + m_prefix.size() > maxKeyBytes)
    {
        throw cloudprovider::InvalidLocationException("Invalid name",
            fmt::format("key {} is refused: it has {} bytes and the prefix of the store {}, at most {} are allowed",
                quoted(key), key.size(), m_prefix.size(), maxKeyBytes));
    }
    // Otherwise a request would be for the blob of another key, which the service takes the name for.
    const std::string segments = m_prefix + key + "/";
    const bool hasBackslash = segments.find('\\') != std::string::npos;
    if (hasBackslash || segments.find("./") != std::string::npos)
    {
        throw cloudprovider::InvalidLocationException(
            "Invalid name", fmt::format("key {} is refused: the store {}", clients::quoted(m_prefix + key),
                                hasBackslash ? "takes a backslash for a slash" : "ignores dots at the end of a name"));
    }
    return fmt::format("{}/{}{}{}", m_endpoint.path, uriEncode(m_container), key.empty() ? "" : "/",
        key.empty() ? "" : uriEncodePath(m_prefix + key));
}

std::string ContainerAddress::resource(const std::string& key) const
{
    return fmt::format("/blob/{}/{}/{}{}", m_account, m_container, m_prefix, key);
}

} // namespace storage::clients::azure
