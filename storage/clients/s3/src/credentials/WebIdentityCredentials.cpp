#include "WebIdentityCredentials.hpp"

#include "CredentialsFailure.hpp"
#include "SecurityTokenService.hpp"

#include <utility>

namespace storage::clients::s3
{

WebIdentityCredentials::WebIdentityCredentials(ProviderContext context)
    : m_context(std::move(context))
{
}

CredentialsProvider::LoadResult WebIdentityCredentials::load()
{
    const std::string& role = m_context.environment["AWS_ROLE_ARN"];
    const std::string& tokenFile = m_context.environment["AWS_WEB_IDENTITY_TOKEN_FILE"];
    if (role.empty() && tokenFile.empty())
    {
        return NoCredentials{"AWS_WEB_IDENTITY_TOKEN_FILE is not set"};
    }
    if (role.empty() || tokenFile.empty())
    {
        throw invalidCredentials("AWS_ROLE_ARN and AWS_WEB_IDENTITY_TOKEN_FILE: only one is set; set both or neither");
    }
    return assumeRoleWithWebIdentity(m_context,
        {.arn = role, .namedBy = "AWS_ROLE_ARN", .sessionName = m_context.environment["AWS_ROLE_SESSION_NAME"]},
        tokenFile, "AWS_WEB_IDENTITY_TOKEN_FILE");
}

} // namespace storage::clients::s3
