#include "Environment.hpp"

#include <string_view>
#include <utility>

#include <unistd.h>

namespace storage::clients::s3
{

Environment Environment::ofProcess()
{
    Variables variables;
    for (char** entry = environ; entry != nullptr && *entry != nullptr; ++entry)
    {
        const std::string_view text = *entry;
        const std::size_t end = text.find('=');
        // Other variables are not needed, and some contain secrets.
        if (end != text.npos && (text.starts_with("AWS_") || text.substr(0, end) == "HOME"))
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

} // namespace storage::clients::s3
