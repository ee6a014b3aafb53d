#include "MountHelper.hpp"

#include <algorithm>
#include <array>
#include <sstream>
#include <string_view>

namespace cloudfs
{

namespace
{

/// Whether mount(8) itself has done what an option says, or it means nothing here.
bool isForMount(std::string_view option)
{
    static constexpr std::array<std::string_view, 22> options{"rw", "defaults", "auto", "noauto", "user", "nouser",
        "users", "nofail", "_netdev", "exec", "noexec", "dev", "nodev", "suid", "nosuid", "atime", "noatime",
        "relatime", "async", "diratime", "nodiratime", "norelatime"};
    return option.empty() || option.starts_with("x-") || option.starts_with("comment=") ||
           std::ranges::find(options, option) != options.end();
}

} // namespace

std::optional<std::vector<std::string>> fromMountHelper(
    const std::string& program, const std::vector<std::string>& arguments)
{
    if (program.substr(program.rfind('/') + 1) != "mount.cloudfs")
    {
        return std::nullopt;
    }
    std::vector<std::string> names, options;
    for (std::size_t i = 0; i < arguments.size(); ++i)
    {
        if (arguments[i] == "-o" && i + 1 < arguments.size())
        {
            std::istringstream list(arguments[++i]);
            for (std::string option; std::getline(list, option, ',');)
            {
                if (!isForMount(option))
                {
                    const auto value = std::find(option.begin(), option.end(), '=');
                    std::replace(option.begin(), value, '_', '-');
                    options.push_back("--" + (option == "ro" ? "read-only" : option));
                }
            }
        }
        else if (arguments[i] == "-t" || arguments[i] == "-N")
        {
            ++i; // the type, or a name space that this process is in already
        }
        else if (arguments[i] != "-s" && arguments[i] != "-n" && arguments[i] != "-v")
        {
            names.push_back(arguments[i]); // an option is refused as unknown
        }
    }
    std::vector<std::string> result{"mount", "--background"};
    result.insert(result.end(), options.begin(), options.end());
    if (!names.empty())
    {
        result.insert(result.begin(), {"--store", names.front()});
        result.insert(result.end(), names.begin() + 1, names.end());
    }
    return result;
}

} // namespace cloudfs
