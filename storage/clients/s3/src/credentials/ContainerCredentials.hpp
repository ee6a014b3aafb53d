#pragma once

#include "CredentialsProvider.hpp"
#include "ProviderContext.hpp"

#include <optional>

namespace storage::clients::s3
{

/// Credentials from the endpoint that a container's host provides.
class ContainerCredentials : public CredentialsProvider
{
public:
    explicit ContainerCredentials(ProviderContext context);

    LoadResult load() override;

    /// The URL of the endpoint; nothing when no variable names one.
    ///
    /// @throws cloudprovider::InvalidCredentialsException for a URL with which the token or the credentials would cross
    ///         a network unencrypted
    static std::optional<std::string> address(const Environment& environment);

private:
    const ProviderContext m_context;
};

} // namespace storage::clients::s3
