#include "ChildProcess.hpp"
#include "CommandWords.hpp"
#include "CredentialsDocument.hpp"
#include "CredentialsSources.hpp"
#include "SharedConfig.hpp"

#include <storage/clients/common/KeyRules.hpp>
#include <storage/clients/credentials/CredentialsFailure.hpp>

#include <boost/algorithm/string/trim_all.hpp>

#include <chrono>
#include <string>
#include <system_error>

namespace storage::clients::s3
{

namespace
{

using namespace std::chrono_literals;

constexpr auto limit = 60s; // the program may have to ask a service, or a person in a browser

/// What the program wrote to standard error, on one line. The end of a long text: most often it says what failed.
std::string excerpt(const std::string& errors)
{
    constexpr std::size_t maxLength = 200;
    const std::string text = boost::algorithm::trim_fill_copy(errors, " ");
    const std::string end = text.size() <= maxLength ? text : "..." + text.substr(text.size() - maxLength + 3);
    return end.empty() ? "" : "; it wrote " + quoted(end);
}

} // namespace

IssuedCredentials processCredentials(const SourceContext& context, const SharedSection& profile)
{
    const std::string where = "credential_process of " + profile.where;
    const auto words = splitWords(profile["credential_process"]);
    if (!words || words->empty())
    {
        throw invalidCredentials(where + " is not a command: a quote is not closed, or nothing follows a backslash");
    }
    ProgramResult result;
    try
    {
        result = runProgram(*words, limit, context.interrupted);
    }
    catch (const std::system_error& failure)
    {
        throw invalidCredentials(where + " cannot be started: " + failure.what());
    }
    // Only the program's name: an argument may be a secret.
    const std::string detail = where + ": " + words->front() + " ";
    if (result.isInterrupted)
    {
        throw credentialsUnavailable(detail + result.failure);
    }
    if (!result.failure.empty())
    {
        throw invalidCredentials(detail + result.failure + excerpt(result.errors));
    }
    try
    {
        return readPrintedCredentials(result.output);
    }
    catch (const CredentialsDocumentError& fault)
    {
        throw invalidCredentials(detail + "printed no credentials: " + fault.what() + excerpt(result.errors));
    }
}

} // namespace storage::clients::s3
