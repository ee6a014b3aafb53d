#pragma once

#include <storage/clients/azure/Credentials.hpp>
#include <storage/clients/credentials/CredentialsLoader.hpp>

#include <filesystem>
#include <optional>
#include <string>

namespace storage::clients::azure
{

/// What the sources of one chain share: the parameters of defaultCredentials(), and the variables.
struct SourceContext : ServiceContext
{
    std::string account = {};
};

using IssuedCredentials = Issued<Credentials>;
using LoadResult = LoadResultOf<Credentials>;
using CredentialsLoader = LoaderOf<Credentials>;

/// Refuse control characters, see RefreshingCredentials.
void checkUsable(const Credentials& credentials);

// All sources below throw what a loader throws.

/// The key or the signature in variables.
LoadResult variableCredentials(const SourceContext& context);

/// A token for the application that variables name, which proves itself with a secret or with the token in a file.
LoadResult applicationCredentials(const SourceContext& context);

/// A token from the endpoint that the host of an app provides.
LoadResult appServiceCredentials(const SourceContext& context);

/// The key or the signature in the configuration file of the command line `az`. That of another account is not used.
LoadResult configuredCredentials(const SourceContext& context);

/// A token for the user who has logged in with `az`: the one in its cache, or a new one for the cache's refresh token.
/// The cache is not written: the service does not revoke a refresh token that was used.
///
/// @param usedToken  the token that was last taken from the cache. It is not taken again: it is about to expire, or the
///                   store has refused it.
LoadResult loginCredentials(const SourceContext& context, std::string& usedToken);

/// Why the files of `az` are not used: variables name another identity, or its folder is not known.
std::optional<std::string> whyNotCommandLine(const Environment& environment);

/// The folder of its files: AZURE_CONFIG_DIR, else ~/.azure; empty when neither is known.
std::filesystem::path commandLineFolder(const Environment& environment);

/// A token from the metadata service of a virtual machine.
///
/// @param hasIssued  set when the service has issued a token. Before that, it is not a failure if the service is
///                   unreachable or refuses: most machines have no such service or no identity.
LoadResult machineCredentials(const SourceContext& context, bool& hasIssued);

/// The first of the above in this order that has credentials.
CredentialsLoader credentialsChain(SourceContext context);

} // namespace storage::clients::azure
