#pragma once

#include <storage/clients/credentials/CredentialsFailure.hpp>
#include <storage/clients/credentials/Environment.hpp>

#include <chrono>
#include <filesystem>
#include <functional>
#include <optional>
#include <string>
#include <utility>
#include <variant>
#include <vector>

namespace storage::clients
{

/// What all sources of credentials need.
struct ServiceContext
{
    Environment environment;
    std::filesystem::path authorities = {}; ///< see HttpClient::Settings
    std::function<bool()> interrupted = {}; ///< as above
};

template <typename Credentials>
struct Issued
{
    Credentials credentials;
    /// Nothing: they do not expire. In seconds: nanoseconds end in 2262, and some services send a time in 9999.
    std::optional<std::chrono::sys_seconds> expiry = {};
};

/// Why a source has no credentials, for people: "AWS_ACCESS_KEY_ID is not set".
struct NoCredentials
{
    std::string reason;
};

/// What a source has now. NoCredentials: it is not set up, so the next source may have some.
template <typename Credentials>
using LoadResultOf = std::variant<Issued<Credentials>, NoCredentials>;

/// Loads what a source has now. Used by one thread at a time.
///
/// Throws cloudprovider::InvalidCredentialsException when the source is set up wrongly, because the next source's
/// credentials would be those of another identity; TransientException when a service does not respond now.
template <typename Credentials>
using LoaderOf = std::function<LoadResultOf<Credentials>()>;

/// The first of these sources that has credentials. If none has, the result has the reasons of all. Until there have
/// been credentials, a service that cannot be connected to is not a TransientException: a wrong address is more likely
/// than an outage.
template <typename Credentials>
LoaderOf<Credentials> firstOf(std::vector<LoaderOf<Credentials>> sources)
{
    return [sources = std::move(sources), hasLoaded = false]() mutable -> LoadResultOf<Credentials>
    {
        std::string reasons;
        for (const auto& source : sources)
        {
            LoadResultOf<Credentials> result = NoCredentials{};
            try
            {
                result = source();
            }
            catch (const UnreachableService& failure)
            {
                const std::string detail = failure.detail().value_or(failure.what());
                hasLoaded ? throw : throw invalidCredentials(detail + "; check its address and the network");
            }
            const auto* none = std::get_if<NoCredentials>(&result);
            if (none == nullptr)
            {
                hasLoaded = true;
                return result;
            }
            reasons += (reasons.empty() ? "" : "; ") + none->reason;
        }
        return NoCredentials{reasons};
    };
}

} // namespace storage::clients
