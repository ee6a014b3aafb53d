#pragma once

#include "CredentialsProvider.hpp"
#include "ProviderContext.hpp"

#include <memory>
#include <vector>

namespace storage::clients::s3
{

/// The providers behind defaultCredentials(), in order. The first one that has credentials is used.
class CredentialsChain : public CredentialsProvider
{
public:
    explicit CredentialsChain(const ProviderContext& context);

    /// @return the reasons of all providers when none has credentials
    /// @throws what a provider throws; later providers are then not used
    LoadResult load() override;

private:
    std::vector<std::unique_ptr<CredentialsProvider>> m_providers;
};

} // namespace storage::clients::s3
