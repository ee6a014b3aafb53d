#pragma once

#include <filesystem>
#include <initializer_list>
#include <map>
#include <string>
#include <string_view>

namespace storage::clients
{

/// The environment variables that matter for credentials, as they were when the value was created.
class Environment
{
public:
    using Variables = std::map<std::string, std::string, std::less<>>;

    /// Read HOME and the variables of the process that begin with one of the prefixes. No other thread may change the
    /// environment during the call.
    static Environment ofProcess(std::initializer_list<std::string_view> prefixes);

    explicit Environment(Variables variables);

    /// The value of a variable; empty when it is not set, which means the same. Valid as long as this object.
    const std::string& operator[](std::string_view name) const;

private:
    Variables m_variables;
};

/// Whether both variables are set.
///
/// @throws cloudprovider::InvalidCredentialsException when only one is
bool areSet(const Environment& environment, const char* first, const char* second);

/// Replace "~/" at the front of a path by the home folder: a variable from a unit file has not been through a shell.
std::filesystem::path expandHome(const Environment& environment, const std::string& path);

} // namespace storage::clients
