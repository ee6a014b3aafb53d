#pragma once

#include <storage/clients/s3/Credentials.hpp>

#include <chrono>
#include <optional>
#include <string>
#include <variant>

namespace storage::clients::s3
{

struct IssuedCredentials
{
    Credentials credentials;
    /// Nothing: they stay valid. In seconds, as nanoseconds end in 2262 and some say that theirs expire in 9999.
    std::optional<std::chrono::sys_seconds> expiry = {};
};

/// Why a place has no credentials, for people: "AWS_ACCESS_KEY_ID is not set".
struct NoCredentials
{
    std::string reason;
};

/// Somewhere credentials may be found. Used by one thread at a time.
class CredentialsProvider
{
public:
    using LoadResult = std::variant<IssuedCredentials, NoCredentials>;

    CredentialsProvider() = default;
    CredentialsProvider(const CredentialsProvider&) = delete;
    CredentialsProvider& operator=(const CredentialsProvider&) = delete;
    virtual ~CredentialsProvider() = default;

    /// Look anew.
    ///
    /// @return NoCredentials when nobody has set this place up: the next one may have some
    /// @throws cloudprovider::InvalidCredentialsException when it is set up wrongly, so that going on to the next place
    ///         would use somebody else's credentials; TransientException when it does not answer at the moment
    virtual LoadResult load() = 0;
};

} // namespace storage::clients::s3
