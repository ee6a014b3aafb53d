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
    /// Nothing: they do not expire. In seconds: nanoseconds end in 2262, and some services send a time in 9999.
    std::optional<std::chrono::sys_seconds> expiry = {};
};

/// Why a provider has no credentials, for people: "AWS_ACCESS_KEY_ID is not set".
struct NoCredentials
{
    std::string reason;
};

/// One source that may have credentials. Used by one thread at a time.
class CredentialsProvider
{
public:
    using LoadResult = std::variant<IssuedCredentials, NoCredentials>;

    CredentialsProvider() = default;
    CredentialsProvider(const CredentialsProvider&) = delete;
    CredentialsProvider& operator=(const CredentialsProvider&) = delete;
    virtual ~CredentialsProvider() = default;

    /// Load the credentials that the source has now.
    ///
    /// @return NoCredentials when the source is not set up: the next provider may have some
    /// @throws cloudprovider::InvalidCredentialsException when it is set up wrongly: the next provider's credentials
    ///         would be those of another identity; TransientException when it does not respond now
    virtual LoadResult load() = 0;
};

} // namespace storage::clients::s3
