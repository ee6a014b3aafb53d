#include <storage/clients/credentials/Environment.hpp>

#include <storage/clients/credentials/CredentialsFailure.hpp>

#include <algorithm>
#include <utility>

#include <unistd.h>

namespace storage::clients
{

Environment Environment::ofProcess(std::initializer_list<std::string_view> prefixes)
{
    Variables variables;
    for (char** entry = environ; entry != nullptr && *entry != nullptr; ++entry)
    {
        const std::string_view text = *entry;
        const std::size_t end = text.find('=');
        // Other variables are not needed, and some contain secrets.
        const bool isOurs = std::any_of(
            prefixes.begin(), prefixes.end(), [&text](std::string_view prefix) { return text.starts_with(prefix); });
        if (end != text.npos && (isOurs || text.substr(0, end) == "HOME"))
        {
            variables.emplace(text.substr(0, end), text.substr(end + 1));
        }
    }
    return Environment(std::move(variables));
}

Environment::Environment(Variables variables)
    : m_variables(std::move(variables))
{
}

const std::string& Environment::operator[](std::string_view name) const
{
    static const std::string unset;
    const auto found = m_variables.find(name);
    return found == m_variables.end() ? unset : found->second;
}

bool areSet(const Environment& environment, const char* first, const char* second)
{
    if (environment[first].empty() != environment[second].empty())
    {
        throw invalidCredentials(std::string(first) + " and " + second + ": only one is set; set both or neither");
    }
    return !environment[first].empty();
}

std::filesystem::path expandHome(const Environment& environment, const std::string& path)
{
    if (!path.starts_with("~/"))
    {
        return path;
    }
    const std::filesystem::path home = environment["HOME"];
    return home.empty() ? home : home / path.substr(2);
}

} // namespace storage::clients
