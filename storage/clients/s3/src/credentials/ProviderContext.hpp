#pragma once

#include "Environment.hpp"

#include <filesystem>
#include <functional>
#include <string>

namespace storage::clients::s3
{

/// What the providers of one chain share. The parameters of defaultCredentials(), and the variables.
struct ProviderContext
{
    Environment environment;
    std::string profile = {};
    std::filesystem::path authorities = {};
    std::function<bool()> interrupted = {};
};

} // namespace storage::clients::s3
