#include "CredentialsSources.hpp"
#include "SecurityTokenService.hpp"

#include <storage/clients/credentials/CredentialsFailure.hpp>

namespace storage::clients::s3
{

LoadResult environmentCredentials(const SourceContext& context)
{
    constexpr const char* keyId = "AWS_ACCESS_KEY_ID";
    constexpr const char* secret = "AWS_SECRET_ACCESS_KEY";
    const Environment& environment = context.environment;
    if (!areSet(environment, keyId, secret))
    {
        return NoCredentials{std::string(keyId) + " is not set"};
    }
    return IssuedCredentials{{environment[keyId], environment[secret], environment["AWS_SESSION_TOKEN"]}};
}

LoadResult webIdentityCredentials(const SourceContext& context)
{
    constexpr const char* role = "AWS_ROLE_ARN";
    constexpr const char* tokenFile = "AWS_WEB_IDENTITY_TOKEN_FILE";
    const Environment& environment = context.environment;
    if (!areSet(environment, role, tokenFile))
    {
        return NoCredentials{std::string(tokenFile) + " is not set"};
    }
    return assumeRoleWithWebIdentity(context,
        {.arn = environment[role], .namedBy = role, .sessionName = environment["AWS_ROLE_SESSION_NAME"]},
        environment[tokenFile], tokenFile);
}

} // namespace storage::clients::s3
