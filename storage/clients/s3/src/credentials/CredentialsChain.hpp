#pragma once

#include "CredentialsProvider.hpp"
#include "Environment.hpp"

#include <memory>
#include <string>
#include <vector>

namespace storage::clients::s3
{

/// The places where defaultCredentials() looks; the first that has credentials counts.
class CredentialsChain : public CredentialsProvider
{
public:
    CredentialsChain(const Environment& environment, const std::string& profile);

    /// @return the reasons of all places when none has any
    /// @throws what a place throws; the places after it are not asked
    LoadResult load() override;

private:
    std::vector<std::unique_ptr<CredentialsProvider>> m_providers;
};

} // namespace storage::clients::s3
