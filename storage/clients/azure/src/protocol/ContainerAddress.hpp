#pragma once

#include <storage/clients/azure/AzureSettings.hpp>
#include <storage/clients/remote/StoreUrl.hpp>

#include <string>
#include <string_view>

namespace storage::clients::azure
{

inline constexpr const char* urlForm = "azure://ACCOUNT/CONTAINER/PREFIX?endpoint=URL";

/// The address of one container, and the paths of its keys. A value.
class ContainerAddress
{
public:
    /// @throws cloudprovider::InvalidLocationException when the account, the container or the endpoint is not valid
    explicit ContainerAddress(const AzureSettings& settings);

    const std::string& account() const noexcept { return m_account; }
    const std::string& container() const noexcept { return m_container; }

    bool isEncrypted() const noexcept { return m_endpoint.scheme == "https"; }

    /// Without the port.
    std::string host() const;

    /// Scheme and host, to which path() is appended. Also shown in messages.
    std::string origin() const { return m_endpoint.origin(); }

    /// The encoded path of a key; of the container itself when the key is empty.
    /// @throws cloudprovider::InvalidLocationException when the key is too long with the prefix, has a backslash, or a
    /// segment
    ///         that ends with a dot
    std::string path(const std::string& key) const;

    /// The name of the blob of a key, as signatures of its URL have it.
    std::string resource(const std::string& key) const;

private:
    std::string m_account;
    std::string m_container;
    std::string m_prefix;
    Endpoint m_endpoint;
};

} // namespace storage::clients::azure
