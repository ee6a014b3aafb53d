#pragma once

#include "CredentialsProvider.hpp"
#include "Environment.hpp"

#include <optional>

namespace storage::clients::s3
{

class MetadataService;

/// The endpoint from which the host of a container gives it credentials.
class ContainerCredentials : public CredentialsProvider
{
public:
    explicit ContainerCredentials(Environment environment);

    LoadResult load() override;

    /// The address to ask; nothing when no variable names one.
    ///
    /// @throws cloudprovider::InvalidCredentialsException for an address to which the token, or from which the
    ///         credentials, would pass through a network unencrypted
    static std::optional<std::string> address(const Environment& environment);

private:
    const Environment m_environment;
};

} // namespace storage::clients::s3
