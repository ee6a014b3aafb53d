#pragma once

#include <cstdlib>
#include <filesystem>
#include <string>

namespace storage::clients::test
{

/// A folder for a cache, which is removed again.
struct CacheFolder
{
    ~CacheFolder() { std::filesystem::remove_all(path.parent_path()); }

    const std::filesystem::path path = []
    {
        std::string name = (std::filesystem::temp_directory_path() / "cache-test-XXXXXX").string();
        return std::filesystem::path(mkdtemp(name.data())) / "cache";
    }();
};

} // namespace storage::clients::test
