#pragma once

#include <utility>

namespace storage::clients
{

/// Credentials that never change.
///
/// @tparam Source  the interface of a store that this implements
template <typename Source>
class FixedCredentials : public Source
{
public:
    using Credentials = decltype(std::declval<Source&>().credentials());

    explicit FixedCredentials(Credentials credentials)
        : m_credentials(std::move(credentials))
    {
    }

    Credentials credentials() override { return m_credentials; }

private:
    const Credentials m_credentials;
};

} // namespace storage::clients
