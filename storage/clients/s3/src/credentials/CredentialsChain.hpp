#pragma once

#include "CredentialsPlace.hpp"
#include "Environment.hpp"

#include <memory>
#include <string>
#include <vector>

namespace storage::clients::s3
{

/// The places where defaultCredentials() looks; the first that has credentials counts.
class CredentialsChain : public CredentialsPlace
{
public:
    CredentialsChain(const Environment& environment, const std::string& profile);

    /// @return the reasons of all places when none has any
    /// @throws what a place throws; the places after it are not asked
    Finding look() override;

private:
    std::vector<std::unique_ptr<CredentialsPlace>> m_places;
};

} // namespace storage::clients::s3
