#pragma once

#include "CredentialsProvider.hpp"
#include "Environment.hpp"

#include <optional>

namespace storage::clients::s3
{

class MetadataService;

/// Credentials from the endpoint that a container's host provides.
class ContainerCredentials : public CredentialsProvider
{
public:
    explicit ContainerCredentials(Environment environment);

    LoadResult load() override;

    /// The URL of the endpoint; nothing when no variable names one.
    ///
    /// @throws cloudprovider::InvalidCredentialsException for a URL with which the token or the credentials would cross
    ///         a network unencrypted
    static std::optional<std::string> address(const Environment& environment);

private:
    const Environment m_environment;
};

} // namespace storage::clients::s3
